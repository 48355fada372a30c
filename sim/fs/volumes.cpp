#include "fs/volumes.h"

#include "kernel.h"

namespace ntsim {

namespace {

// The bytes of a small image: enough for whoever reads a header to find "MZ".
std::vector<uint8_t> ImageBytes(const char* tag) {
  std::string text = std::string("MZ") + std::string(62, '\0') + tag;
  return std::vector<uint8_t>(text.begin(), text.end());
}

void AddDirectory(Volume& volume, const char16_t* path) {
  FileNode& node = volume.files[Upcase(path)];
  node.path = path;
  node.directory = true;
}

void AddFile(Volume& volume, const char16_t* path, std::vector<uint8_t> bytes) {
  FileNode& node = volume.files[Upcase(path)];
  node.path = path;
  node.data = std::move(bytes);
}

char16_t DriveLetter(char16_t letter) {
  if (letter >= u'a' && letter <= u'z') letter = static_cast<char16_t>(letter - u'a' + u'A');
  return letter >= u'A' && letter <= u'Z' ? letter : 0;
}

std::u16string LetterLink(char16_t letter) { return u"\\??\\" + std::u16string(1, letter) + u":"; }

void DeleteLink(ObjectManager& ob, const std::u16string& path) {
  ObjectHeader* header = nullptr;
  if (!NT_SUCCESS(ob.Lookup(path, true, &header, nullptr))) return;
  if (header->type == &ob.types.symbolicLink) ob.RemoveName(header->Body());
  ob.Dereference(header->Body());
}

// Under the layout lock. The store is left before the namespace is changed: the file system's
// dispatch routines take the store's lock and then complete requests, never the other way round.
bool AssignLetterLocked(ObjectManager& ob, FileStore& store, const std::u16string& device, char16_t letter) {
  letter = DriveLetter(letter);
  if (!letter) return false;
  std::u16string target;
  char16_t previous = 0;
  bool taken = false;  // from another volume, which loses it
  {
    std::lock_guard<std::mutex> lock(store.mutex);
    Volume* volume = store.FindVolume(device);
    if (!volume || !volume->present) return false;
    if (volume->letter == letter) return true;
    previous = volume->letter;
    for (auto& [key, other] : store.volumes) {
      if (&other != volume && other.letter == letter) {
        other.letter = 0;
        taken = true;
      }
    }
    volume->letter = letter;
    target = volume->deviceName;
  }
  if (previous) DeleteLink(ob, LetterLink(previous));
  if (taken) DeleteLink(ob, LetterLink(letter));
  if (NT_SUCCESS(ob.CreateSymbolicLink(LetterLink(letter), target, nullptr))) return true;
  // The name belongs to something that is no volume's letter.
  std::lock_guard<std::mutex> lock(store.mutex);
  if (Volume* volume = store.FindVolume(device)) volume->letter = 0;
  return false;
}

}  // namespace

void LayOutFactoryVolumes(FileStore& store) {
  Volume& system = store.AddVolume(u"\\Device\\HarddiskVolume3");
  system.letter = u'C';
  for (const char16_t* dir : {u"\\Windows", u"\\Windows\\System32", u"\\Windows\\System32\\drivers",
                              u"\\Windows\\System32\\InputMethod", u"\\Windows\\System32\\InputMethod\\CHS"}) {
    AddDirectory(system, dir);
  }
  AddFile(system, u"\\Windows\\System32\\cmd.exe", ImageBytes("cmd"));
  AddFile(system, u"\\Windows\\System32\\ntdll.dll", ImageBytes("ntdll"));
  AddFile(system, u"\\Windows\\System32\\kernel32.dll", ImageBytes("kernel32"));
  AddFile(system, u"\\Windows\\System32\\notepad.exe", ImageBytes("notepad"));
  // What a user's logon starts: the shell, the window manager and an input method.
  AddFile(system, u"\\Windows\\Explorer.EXE", ImageBytes("explorer"));
  AddFile(system, u"\\Windows\\System32\\dwm.exe", ImageBytes("dwm"));
  AddFile(system, u"\\Windows\\System32\\InputMethod\\CHS\\ChsIME.exe", ImageBytes("ChsIME"));

  Volume& data = store.AddVolume(u"\\Device\\HarddiskVolume5");
  data.letter = u'D';
  AddDirectory(data, u"\\Data");
  std::string report = "quarterly figures\r\n";
  AddFile(data, u"\\Data\\report.txt", std::vector<uint8_t>(report.begin(), report.end()));

  // The system-reserved partition: the mount manager knows it, but it has no letter.
  Volume& reserved = store.AddVolume(u"\\Device\\HarddiskVolume1");
  AddDirectory(reserved, u"\\Boot");

  // The network redirector: UNC paths lead here, and the mount manager has never heard of it.
  Volume& mup = store.AddVolume(u"\\Device\\Mup");
  mup.redirector = true;
  mup.knownToMountManager = false;
  for (const char16_t* dir : {u"\\server", u"\\server\\share", u"\\server\\share\\tools"}) AddDirectory(mup, dir);
  AddFile(mup, u"\\server\\share\\tools\\a.exe", ImageBytes("a"));
}

void LinkDriveLetters(ObjectManager& ob, FileStore& store) {
  std::vector<std::pair<char16_t, std::u16string>> links;
  {
    std::lock_guard<std::mutex> lock(store.mutex);
    for (auto& [key, volume] : store.volumes) {
      if (volume.present && volume.letter) links.emplace_back(volume.letter, volume.deviceName);
    }
  }
  for (auto& [letter, device] : links) ob.CreateSymbolicLink(LetterLink(letter), device, nullptr);
}

bool AddVolume(IoManager& io, ObjectManager& ob, FileStore& store, const std::u16string& device, char16_t letter,
               bool knownToMountManager) {
  if (letter && !DriveLetter(letter)) return false;
  if (device.rfind(u"\\Device\\", 0) != 0 || device.size() <= 8) return false;
  std::lock_guard<std::mutex> layout(store.layoutMutex);
  bool arrived;
  {
    std::lock_guard<std::mutex> lock(store.mutex);
    Volume* known = store.FindVolume(device);
    arrived = !known || !known->present;
    Volume& volume = store.AddVolume(device);  // a volume that comes back finds its files again
    volume.present = true;
    volume.knownToMountManager = knownToMountManager;
  }
  if (arrived && !MountVolume(io, device)) {
    std::lock_guard<std::mutex> lock(store.mutex);
    store.FindVolume(device)->present = false;
    return false;
  }
  return !letter || AssignLetterLocked(ob, store, device, letter);
}

bool RemoveVolume(IoManager& io, ObjectManager& ob, FileStore& store, const std::u16string& device) {
  std::lock_guard<std::mutex> layout(store.layoutMutex);
  char16_t letter = 0;
  {
    std::lock_guard<std::mutex> lock(store.mutex);
    Volume* volume = store.FindVolume(device);
    if (!volume || !volume->present) return false;
    // The letter is released: another volume may take it before this one comes back.
    letter = volume->letter;
    volume->letter = 0;
    volume->present = false;
  }
  if (letter) DeleteLink(ob, LetterLink(letter));
  DismountVolume(io, device);
  return true;
}

bool AssignDriveLetter(ObjectManager& ob, FileStore& store, const std::u16string& device, char16_t letter) {
  std::lock_guard<std::mutex> layout(store.layoutMutex);
  return AssignLetterLocked(ob, store, device, letter);
}

void RemoveDriveLetter(ObjectManager& ob, FileStore& store, char16_t letter) {
  letter = DriveLetter(letter);
  if (!letter) return;
  std::lock_guard<std::mutex> layout(store.layoutMutex);
  bool held = false;
  {
    std::lock_guard<std::mutex> lock(store.mutex);
    for (auto& [key, volume] : store.volumes) {
      if (volume.letter == letter) {
        volume.letter = 0;
        held = true;
      }
    }
  }
  // Only a volume's own letter is taken away; any other link of that name is not ours.
  if (held) DeleteLink(ob, LetterLink(letter));
}

bool SetVolumeMountFolder(FileStore& store, const std::u16string& device, const std::u16string& folder) {
  std::lock_guard<std::mutex> layout(store.layoutMutex);
  std::lock_guard<std::mutex> lock(store.mutex);
  Volume* volume = store.FindVolume(device);
  if (!volume) return false;
  volume->mountFolder = folder;
  return true;
}

}  // namespace ntsim
