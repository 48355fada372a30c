// The machine's volume set as its owner changes it: disks that arrive and leave, drive letters
// given and taken, mount folders. Each change is made in the store, so that it outlives reboots,
// and in the running system: the volume's device and its "\??\X:" link.
#pragma once

#include <string>

#include "fs/file_system.h"

namespace ntsim {

// The disks a new machine comes with; called once, on the first boot.
void LayOutFactoryVolumes(FileStore& store);
// At boot, once the file system has its devices: the drive-letter links of the present volumes.
void LinkDriveLetters(ObjectManager& ob, FileStore& store);

// Each returns false, changing nothing, if the volume or the letter does not allow it (see world.h).
bool AddVolume(IoManager& io, ObjectManager& ob, FileStore& store, const std::u16string& device, char16_t letter,
               bool knownToMountManager);
bool RemoveVolume(IoManager& io, ObjectManager& ob, FileStore& store, const std::u16string& device);
bool AssignDriveLetter(ObjectManager& ob, FileStore& store, const std::u16string& device, char16_t letter);
void RemoveDriveLetter(ObjectManager& ob, FileStore& store, char16_t letter);
bool SetVolumeMountFolder(FileStore& store, const std::u16string& device, const std::u16string& folder);

}  // namespace ntsim
