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
  std::map<std::u16string, FileNode> files;  // key: upcased path; the root is "\"
  std::map<std::u16string, NTSTATUS> failingWrites;  // key: upcased path; injected write failures
};

class FileStore {
 public:
  std::mutex mutex;
  std::map<std::u16string, Volume> volumes;  // key: upcased device name

  Volume& AddVolume(const std::u16string& deviceName);
  Volume* FindVolume(const std::u16string& deviceName);
};

// Splits an NT path into its volume and the path within it, following links ("\SystemRoot\x").
bool ResolveVolumePath(ObjectManager& ob, const std::u16string& ntPath, std::u16string* device,
                       std::u16string* path);

// Starts the file system driver and creates the volume devices of the store.
void StartFileSystem(IoManager& io, std::shared_ptr<FileStore> store);

}  // namespace ntsim
