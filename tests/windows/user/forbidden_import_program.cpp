// A console program that imports from user32.dll, which no program of ours may do.
#include <windows.h>

int main() { return MessageBoxW(nullptr, L"", L"", MB_OK) == 0; }
