// sentrel-events.exe: the reference consumer on a Windows machine with Sentrel.sys running. Opens
// "\\.\Sentrel", stops on Ctrl-C; everything else is events_app.cpp.
#include <fcntl.h>
#include <io.h>
#include <windows.h>

#include <atomic>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <sstream>

#include "events_app.h"

namespace {

std::atomic<bool> stopRequested{false};

BOOL WINAPI OnConsoleControl(DWORD type) {
  if (type == CTRL_C_EVENT || type == CTRL_BREAK_EVENT || type == CTRL_CLOSE_EVENT) {
    stopRequested = true;
    return TRUE;  // the run notices between slots, prints its summary and returns
  }
  return FALSE;
}

bool ReadWholeFile(const std::string& path, std::string* text, std::string* error) {
  std::ifstream file(path, std::ios::binary);
  if (!file) {
    *error = "no such file, or no access";
    return false;
  }
  std::ostringstream contents;
  contents << file.rdbuf();
  *text = contents.str();
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  // Lines end in "\n" alone, as sentrel-sim's do.
  _setmode(_fileno(stdout), _O_BINARY);
  sentrel_events::Options options;
  std::string error;
  if (!sentrel_events::ParseOptions(argc, argv, &options, &error)) {
    std::cerr << "sentrel-events: " << error << " (see --help)\n";
    return sentrel_events::kExitNoStart;
  }
  if (options.help) {
    std::cout << sentrel_events::Usage();
    return sentrel_events::kExitOk;
  }
  uint32_t openError = 0;
  std::unique_ptr<sentrel_sdk::Device> device = sentrel_sdk::OpenSentrelDevice(&openError);
  if (!device) {
    std::cerr << sentrel_events::NoDeviceMessage(openError) << '\n';
    return sentrel_events::kExitNoStart;
  }
  SetConsoleCtrlHandler(OnConsoleControl, TRUE);
  sentrel_events::Environment environment;
  environment.stopRequested = [] { return stopRequested.load(); };
  environment.sleepMs = [](uint32_t ms) { Sleep(ms); };
  environment.readFile = ReadWholeFile;
  return sentrel_events::Run(*device, options, environment, std::cout, std::cerr);
}
