// The machine's disks and the file system on them. The store (volumes, directories, files and
// their bytes) belongs to the world: it survives driver loads, reboots and crashes, and a crash
// leaves every file as its last write left it. Each boot puts a file-system driver and one volume
// device per volume ("\Device\HarddiskVolumeN") on top of it.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "io/io_manager.h"

namespace ntsim {

struct FileNode {
  std::u16string path;  // within the volume, as created: "\Windows\System32\x.dat"
  bool directory = false;
  std::vector<uint8_t> data;
};

struct Volume {
  std::u16string deviceName;  // "\Device\HarddiskVolume3"
  char16_t letter = 0;        // u'C', or 0: no drive letter
  std::u16string mountFolder;  // "C:\Mount\Data\": where the volume is mounted without a letter, if anywhere
  bool knownToMountManager = true;  // false for devices the mount manager never heard of
  bool redirector = false;          // a network redirector's device (\Device\Mup), not a disk volume
  // false once removed: its files stay in the store, and come back with it if it is added again.
  bool present = true;
  std::map<std::u16string, FileNode> files;  // key: upcased path; the root is "\"
  std::map<std::u16string, NTSTATUS> failingWrites;  // key: upcased path; injected write failures
};

class FileStore {
 public:
  std::mutex mutex;        // guards the volumes and their files
  std::mutex layoutMutex;  // serialises volume arrivals, removals and drive-letter changes; taken first
  std::map<std::u16string, Volume> volumes;  // key: upcased device name

  Volume& AddVolume(const std::u16string& deviceName);
  Volume* FindVolume(const std::u16string& deviceName);
};

// Splits an NT path into its volume and the path within it, following links ("\SystemRoot\x").
bool ResolveVolumePath(ObjectManager& ob, const std::u16string& ntPath, std::u16string* device,
                       std::u16string* path);

// Starts the file system drivers and creates the devices of the store's present volumes.
void StartFileSystem(IoManager& io, std::shared_ptr<FileStore> store);
// A device for a present volume of the store that has none yet (a volume that arrives after boot).
// False if the name is taken by another object.
bool MountVolume(IoManager& io, const std::u16string& deviceName);
// Deletes a volume's device. Files still open on it fail their transfers from then on.
void DismountVolume(IoManager& io, const std::u16string& deviceName);

}  // namespace ntsim
