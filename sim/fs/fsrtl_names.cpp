// Name routines of the file-system run-time library.
#include "kernel.h"

using namespace ntsim;

// Backslashes separate names. The first name runs from the start of the path (after one leading
// backslash, which is dropped) to the next backslash; the remaining name is everything behind that
// backslash, so "A\\B" gives "A" and "\B". Both results point into Path's buffer, with maximum
// lengths equal to their lengths.
VOID NTAPI FsRtlDissectName(UNICODE_STRING Path, PUNICODE_STRING FirstName, PUNICODE_STRING RemainingName) {
  if (KeGetCurrentIrql() > PASSIVE_LEVEL) K().verifier.Violation("FsRtlDissectName", "called above PASSIVE_LEVEL");
  size_t chars = Path.Length / sizeof(WCHAR);
  FirstName->Length = FirstName->MaximumLength = 0;
  FirstName->Buffer = nullptr;
  RemainingName->Length = RemainingName->MaximumLength = 0;
  RemainingName->Buffer = nullptr;
  if (chars == 0) return;

  size_t first = Path.Buffer[0] == L'\\' ? 1 : 0;
  size_t end = first;
  while (end < chars && Path.Buffer[end] != L'\\') ++end;
  FirstName->Buffer = Path.Buffer + first;
  FirstName->Length = FirstName->MaximumLength = static_cast<USHORT>((end - first) * sizeof(WCHAR));
  if (end + 1 < chars) {
    RemainingName->Buffer = Path.Buffer + end + 1;
    RemainingName->Length = RemainingName->MaximumLength = static_cast<USHORT>((chars - end - 1) * sizeof(WCHAR));
  }
}
