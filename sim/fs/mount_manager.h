// The mount point manager's device "\Device\MountPointManager": a driver of the simulated machine.
// It answers IOCTL_MOUNTMGR_QUERY_DOS_VOLUME_PATH from the store's volumes: a drive letter ("C:"),
// else a mount folder, else the volume's GUID path; devices it does not know are not found.
#pragma once

#include <memory>
#include <string>

#include "fs/file_system.h"
#include "io/io_manager.h"

namespace ntsim {

// At kernel start: the driver and its device, with no volumes yet and no queries counted.
void StartMountManager(IoManager& io);
// At kernel teardown: answers still in flight on other host threads are delivered first.
void StopMountManager();
// At boot, once the store is known: the volumes it answers for.
void ConnectMountManager(std::shared_ptr<FileStore> store);

// Test hooks. A failure status other than STATUS_SUCCESS fails every query with it; pending
// answers are completed from another host thread shortly after the dispatch returns.
void MountManagerFailQueries(NTSTATUS status);
void MountManagerAnswerPending(bool pending);
size_t MountManagerQueryCount();

// "\\?\Volume{xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx}\": the same for a device name on every boot.
std::u16string VolumeGuidPath(const std::u16string& deviceName);

}  // namespace ntsim
