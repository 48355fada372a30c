#include "fs/file_system.h"

#include "kernel.h"

namespace ntsim {

namespace {

constexpr ULONG kSectorSize = 512;
constexpr ULONG kClusterSize = 4096;

// The store of the booted machine; the driver's dispatch routines reach it through here.
std::shared_ptr<FileStore>& Store() {
  static std::shared_ptr<FileStore> store;
  return store;
}

// What a file object opened on a volume refers to. Like a file control block it keeps the name the
// file had when opened, so the name can be told even after the file is gone.
struct FileContext {
  std::u16string volume;  // upcased device name
  std::u16string key;     // upcased path within the volume
  std::u16string name;    // the path as the file was created: "\Windows\System32"
};

// The booted machine's file system drivers and the devices of its volumes.
struct Mounts {
  std::mutex mutex;
  PDRIVER_OBJECT ntfs = nullptr;
  PDRIVER_OBJECT mup = nullptr;
  std::map<std::u16string, PDEVICE_OBJECT> devices;  // key: upcased device name
};
Mounts g_mounts;

// Open files' contexts of the booted machine; a crash drops them with the machine.
std::mutex g_contextsMutex;
std::map<FileContext*, std::unique_ptr<FileContext>> g_contexts;

FileContext* NewContext(const std::u16string& volume, const std::u16string& key, const std::u16string& name) {
  auto context = std::make_unique<FileContext>(FileContext{volume, key, name});
  FileContext* raw = context.get();
  std::lock_guard<std::mutex> lock(g_contextsMutex);
  g_contexts[raw] = std::move(context);
  return raw;
}

void DeleteContext(FileContext* context) {
  std::lock_guard<std::mutex> lock(g_contextsMutex);
  g_contexts.erase(context);
}

NTSTATUS Complete(PIRP irp, NTSTATUS status, ULONG_PTR information) {
  irp->IoStatus.Status = status;
  irp->IoStatus.Information = information;
  IofCompleteRequest(irp, IO_NO_INCREMENT);
  return status;
}

std::u16string ParentOf(const std::u16string& key) {
  size_t slash = key.find_last_of(u'\\');
  return slash == 0 ? u"\\" : key.substr(0, slash);
}

std::u16string Normalize(const std::u16string& path) {
  std::u16string out;
  for (const std::u16string& part : SplitPath(path)) out += u"\\" + part;
  return out.empty() ? u"\\" : out;
}

Volume* VolumeOf(PDEVICE_OBJECT device) {
  return Store()->FindVolume(K().ob.FullName(ObjectManager::HeaderOf(device)));
}

FileContext* ContextOf(PIRP irp) {
  return static_cast<FileContext*>(IoGetCurrentIrpStackLocation(irp)->FileObject->FsContext);
}

// Where a missing file would be: in a directory that exists (name not found), or not (path not found).
NTSTATUS MissingFileStatus(const Volume& volume, const std::u16string& key) {
  auto parent = volume.files.find(ParentOf(key));
  return parent != volume.files.end() && parent->second.directory ? STATUS_OBJECT_NAME_NOT_FOUND
                                                                  : STATUS_OBJECT_PATH_NOT_FOUND;
}

NTSTATUS NTAPI FsCreate(PDEVICE_OBJECT device, PIRP irp) {
  PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
  ULONG disposition = stack->Parameters.Create.Options >> 24;
  ULONG options = stack->Parameters.Create.Options & 0x00FFFFFF;
  std::u16string opened = ToU16(&stack->FileObject->FileName);
  std::u16string path = Normalize(opened);
  std::u16string key = Upcase(path);
  // "x\" names a directory: a file cannot be opened or created by such a name.
  bool directoryName = path != u"\\" && !opened.empty() && opened.back() == u'\\';
  std::lock_guard<std::mutex> lock(Store()->mutex);
  Volume* volume = VolumeOf(device);
  if (!volume || !volume->present) return Complete(irp, STATUS_NO_SUCH_DEVICE, 0);
  auto it = volume->files.find(key);
  ULONG_PTR information = FILE_OPENED;
  if (it == volume->files.end()) {
    NTSTATUS missing = MissingFileStatus(*volume, key);
    if (disposition == FILE_OPEN || disposition == FILE_OVERWRITE || missing == STATUS_OBJECT_PATH_NOT_FOUND) {
      return Complete(irp, missing, disposition == FILE_OPEN || disposition == FILE_OVERWRITE ? FILE_DOES_NOT_EXIST : 0);
    }
    if (directoryName && !(options & FILE_DIRECTORY_FILE)) return Complete(irp, STATUS_OBJECT_NAME_INVALID, 0);
    FileNode node;
    node.path = path;
    node.directory = (options & FILE_DIRECTORY_FILE) != 0;
    it = volume->files.emplace(key, node).first;
    information = FILE_CREATED;
  } else {
    if (disposition == FILE_CREATE) return Complete(irp, STATUS_OBJECT_NAME_COLLISION, FILE_EXISTS);
    if (directoryName && !it->second.directory) return Complete(irp, STATUS_OBJECT_NAME_INVALID, 0);
    if ((options & FILE_DIRECTORY_FILE) && !it->second.directory) return Complete(irp, STATUS_NOT_A_DIRECTORY, 0);
    if ((options & FILE_NON_DIRECTORY_FILE) && it->second.directory) {
      return Complete(irp, STATUS_FILE_IS_A_DIRECTORY, 0);
    }
    if (disposition == FILE_OVERWRITE || disposition == FILE_OVERWRITE_IF || disposition == FILE_SUPERSEDE) {
      it->second.data.clear();
      information = disposition == FILE_SUPERSEDE ? FILE_SUPERSEDED : FILE_OVERWRITTEN;
    }
  }
  stack->FileObject->FsContext = NewContext(Upcase(volume->deviceName), key, it->second.path);
  return Complete(irp, STATUS_SUCCESS, information);
}

NTSTATUS NTAPI FsCleanup(PDEVICE_OBJECT, PIRP irp) { return Complete(irp, STATUS_SUCCESS, 0); }

NTSTATUS NTAPI FsClose(PDEVICE_OBJECT, PIRP irp) {
  DeleteContext(ContextOf(irp));
  IoGetCurrentIrpStackLocation(irp)->FileObject->FsContext = nullptr;
  return Complete(irp, STATUS_SUCCESS, 0);
}

// The rule of I/O without intermediate buffering: whole sectors, and a buffer aligned as the
// device requires.
bool UnbufferedTransferAllowed(PDEVICE_OBJECT device, PFILE_OBJECT file, const void* buffer, ULONG length,
                               LONGLONG offset) {
  if (!(file->Flags & FO_NO_INTERMEDIATE_BUFFERING)) return true;
  return offset % kSectorSize == 0 && length % kSectorSize == 0 &&
         (reinterpret_cast<uintptr_t>(buffer) & device->AlignmentRequirement) == 0;
}

NTSTATUS NTAPI FsReadWrite(PDEVICE_OBJECT device, PIRP irp) {
  PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
  bool read = stack->MajorFunction == IRP_MJ_READ;
  ULONG length = stack->Parameters.Read.Length;
  LONGLONG offset = stack->Parameters.Read.ByteOffset.QuadPart;
  auto* buffer = static_cast<uint8_t*>(irp->UserBuffer);
  if (offset < 0) return Complete(irp, STATUS_INVALID_PARAMETER, 0);
  if (!UnbufferedTransferAllowed(device, stack->FileObject, buffer, length, offset)) {
    return Complete(irp, STATUS_INVALID_PARAMETER, 0);
  }
  FileContext* context = ContextOf(irp);
  std::lock_guard<std::mutex> lock(Store()->mutex);
  Volume* volume = Store()->FindVolume(context->volume);
  if (!volume || !volume->present) return Complete(irp, STATUS_NO_SUCH_DEVICE, 0);  // the volume went away
  auto it = volume->files.find(context->key);
  if (it == volume->files.end()) return Complete(irp, STATUS_FILE_CLOSED, 0);  // deleted under us
  if (it->second.directory) return Complete(irp, STATUS_INVALID_DEVICE_REQUEST, 0);
  std::vector<uint8_t>& data = it->second.data;
  if (read) {
    if (static_cast<uint64_t>(offset) >= data.size()) return Complete(irp, STATUS_END_OF_FILE, 0);
    size_t n = data.size() - static_cast<size_t>(offset);
    if (n > length) n = length;
    std::memcpy(buffer, data.data() + offset, n);
    return Complete(irp, STATUS_SUCCESS, n);
  }
  auto failing = volume->failingWrites.find(context->key);
  if (failing != volume->failingWrites.end()) return Complete(irp, failing->second, 0);
  if (data.size() < static_cast<size_t>(offset) + length) data.resize(static_cast<size_t>(offset) + length);
  if (length) std::memcpy(data.data() + offset, buffer, length);
  return Complete(irp, STATUS_SUCCESS, length);
}

// Every write reaches the disk at once, so a flush has nothing left to do.
NTSTATUS NTAPI FsFlush(PDEVICE_OBJECT, PIRP irp) { return Complete(irp, STATUS_SUCCESS, 0); }

// FileNameInformation: the path from the volume's root. A name that does not fit is returned in
// part, with its whole length, as STATUS_BUFFER_OVERFLOW.
NTSTATUS QueryName(PIRP irp) {
  PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
  FileContext* context = ContextOf(irp);
  if (!context) return Complete(irp, STATUS_INVALID_PARAMETER, 0);  // a file object no create reached
  const ULONG header = FIELD_OFFSET(FILE_NAME_INFORMATION, FileName);
  ULONG length = stack->Parameters.QueryFile.Length;
  if (length < sizeof(FILE_NAME_INFORMATION)) return Complete(irp, STATUS_INFO_LENGTH_MISMATCH, 0);
  auto* info = static_cast<PFILE_NAME_INFORMATION>(irp->AssociatedIrp.SystemBuffer);
  ULONG bytes = static_cast<ULONG>(context->name.size() * sizeof(WCHAR));
  ULONG room = (length - header) & ~ULONG(1);
  info->FileNameLength = bytes;
  ULONG copied = room < bytes ? room : bytes;
  std::memcpy(info->FileName, context->name.data(), copied);
  return Complete(irp, copied < bytes ? STATUS_BUFFER_OVERFLOW : STATUS_SUCCESS, header + copied);
}

NTSTATUS NTAPI FsQueryInformation(PDEVICE_OBJECT, PIRP irp) {
  PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
  if (stack->Parameters.QueryFile.FileInformationClass == FileNameInformation) return QueryName(irp);
  if (stack->Parameters.QueryFile.FileInformationClass != FileStandardInformation) {
    return Complete(irp, STATUS_INVALID_INFO_CLASS, 0);
  }
  if (stack->Parameters.QueryFile.Length < sizeof(FILE_STANDARD_INFORMATION)) {
    return Complete(irp, STATUS_INFO_LENGTH_MISMATCH, 0);
  }
  FileContext* context = ContextOf(irp);
  std::lock_guard<std::mutex> lock(Store()->mutex);
  Volume* volume = Store()->FindVolume(context->volume);
  if (!volume || !volume->present) return Complete(irp, STATUS_NO_SUCH_DEVICE, 0);
  if (!volume->files.count(context->key)) return Complete(irp, STATUS_FILE_CLOSED, 0);
  const FileNode& node = volume->files[context->key];
  FILE_STANDARD_INFORMATION info = {};
  info.EndOfFile.QuadPart = static_cast<LONGLONG>(node.data.size());
  info.AllocationSize.QuadPart = static_cast<LONGLONG>((node.data.size() + kClusterSize - 1) / kClusterSize * kClusterSize);
  info.NumberOfLinks = 1;
  info.Directory = node.directory;
  std::memcpy(irp->AssociatedIrp.SystemBuffer, &info, sizeof info);
  return Complete(irp, STATUS_SUCCESS, sizeof info);
}

}  // namespace

Volume& FileStore::AddVolume(const std::u16string& deviceName) {
  Volume& volume = volumes[Upcase(deviceName)];
  volume.deviceName = deviceName;
  if (!volume.files.count(u"\\")) {
    FileNode root;
    root.path = u"\\";
    root.directory = true;
    volume.files[u"\\"] = root;
  }
  return volume;
}

Volume* FileStore::FindVolume(const std::u16string& deviceName) {
  auto it = volumes.find(Upcase(deviceName));
  return it == volumes.end() ? nullptr : &it->second;
}

bool ResolveVolumePath(ObjectManager& ob, const std::u16string& ntPath, std::u16string* device, std::u16string* path) {
  ObjectHeader* header = nullptr;
  std::u16string remaining;
  if (!NT_SUCCESS(ob.Lookup(ntPath, false, &header, &remaining))) return false;
  bool isDevice = header->type == &ob.types.device;
  *device = ob.FullName(header);
  ob.Dereference(header->Body());
  *path = Normalize(remaining);
  return isDevice;
}

void StartFileSystem(IoManager& io, std::shared_ptr<FileStore> store) {
  Store() = std::move(store);
  {
    std::lock_guard<std::mutex> lock(g_contextsMutex);
    g_contexts.clear();
  }
  PDRIVER_OBJECT ntfs = io.CreateDriverObject(u"\\FileSystem\\Ntfs", nullptr);
  PDRIVER_OBJECT mup = io.CreateDriverObject(u"\\FileSystem\\Mup", nullptr);
  // The redirector keeps its files in the store as the disks do, so one set of routines serves both.
  for (PDRIVER_OBJECT driver : {ntfs, mup}) {
    driver->MajorFunction[IRP_MJ_CREATE] = FsCreate;
    driver->MajorFunction[IRP_MJ_CLEANUP] = FsCleanup;
    driver->MajorFunction[IRP_MJ_CLOSE] = FsClose;
    driver->MajorFunction[IRP_MJ_READ] = FsReadWrite;
    driver->MajorFunction[IRP_MJ_WRITE] = FsReadWrite;
    driver->MajorFunction[IRP_MJ_FLUSH_BUFFERS] = FsFlush;
    driver->MajorFunction[IRP_MJ_QUERY_INFORMATION] = FsQueryInformation;
  }
  std::vector<std::u16string> present;
  {
    std::lock_guard<std::mutex> lock(Store()->mutex);
    for (auto& [key, volume] : Store()->volumes) {
      if (volume.present) present.push_back(volume.deviceName);
    }
  }
  {
    std::lock_guard<std::mutex> lock(g_mounts.mutex);
    g_mounts.ntfs = ntfs;
    g_mounts.mup = mup;
    g_mounts.devices.clear();  // the last boot's devices went with its kernel
  }
  for (const std::u16string& name : present) MountVolume(io, name);
}

bool MountVolume(IoManager& io, const std::u16string& deviceName) {
  std::u16string name;
  bool redirector = false;
  {
    std::lock_guard<std::mutex> lock(Store()->mutex);
    Volume* volume = Store()->FindVolume(deviceName);
    if (!volume || !volume->present) return false;
    name = volume->deviceName;
    redirector = volume->redirector;
  }
  std::lock_guard<std::mutex> lock(g_mounts.mutex);
  if (g_mounts.devices.count(Upcase(name))) return true;
  UNICODE_STRING counted{static_cast<USHORT>(name.size() * 2), static_cast<USHORT>(name.size() * 2),
                         reinterpret_cast<PWSTR>(name.data())};
  PDEVICE_OBJECT device = nullptr;
  NTSTATUS status = io.CreateDevice(redirector ? g_mounts.mup : g_mounts.ntfs, 0, &counted,
                                    redirector ? FILE_DEVICE_NETWORK_FILE_SYSTEM : FILE_DEVICE_DISK, 0, FALSE, &device);
  if (!NT_SUCCESS(status)) return false;
  device->AlignmentRequirement = 1;  // FILE_WORD_ALIGNMENT
  // Published with release order: opens racing the mount read the flag without the mount's lock.
  __atomic_and_fetch(&device->Flags, ~static_cast<ULONG>(DO_DEVICE_INITIALIZING), __ATOMIC_RELEASE);
  g_mounts.devices[Upcase(name)] = device;
  return true;
}

void DismountVolume(IoManager& io, const std::u16string& deviceName) {
  PDEVICE_OBJECT device = nullptr;
  {
    std::lock_guard<std::mutex> lock(g_mounts.mutex);
    auto it = g_mounts.devices.find(Upcase(deviceName));
    if (it == g_mounts.devices.end()) return;
    device = it->second;
    g_mounts.devices.erase(it);
  }
  io.DeleteDevice(device);  // open files keep the object, and reach the file system through it
}

}  // namespace ntsim
