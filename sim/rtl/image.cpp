// The headers of a mapped image.
#include "kernel.h"

PIMAGE_NT_HEADERS NTAPI RtlImageNtHeader(PVOID Base) {
  if (!Base) return nullptr;
  auto* dos = static_cast<PIMAGE_DOS_HEADER>(Base);
  if (dos->e_magic != IMAGE_DOS_SIGNATURE || dos->e_lfanew < 0 || dos->e_lfanew >= 256 * 1024 * 1024) return nullptr;
  auto* nt = reinterpret_cast<PIMAGE_NT_HEADERS>(static_cast<uint8_t*>(Base) + dos->e_lfanew);
  return nt->Signature == IMAGE_NT_SIGNATURE ? nt : nullptr;
}

// Only mapped images are simulated: a directory of a file read as data (MappedAsImage FALSE) would
// need section headers to translate its address, which no simulated image has.
PVOID NTAPI RtlImageDirectoryEntryToData(PVOID Base, BOOLEAN MappedAsImage, USHORT DirectoryEntry, PULONG Size) {
  PIMAGE_NT_HEADERS nt = RtlImageNtHeader(Base);
  if (!nt || nt->OptionalHeader.Magic != IMAGE_NT_OPTIONAL_HDR64_MAGIC) return nullptr;
  if (DirectoryEntry >= nt->OptionalHeader.NumberOfRvaAndSizes) return nullptr;
  const IMAGE_DATA_DIRECTORY& directory = nt->OptionalHeader.DataDirectory[DirectoryEntry];
  if (directory.VirtualAddress == 0) return nullptr;
  *Size = directory.Size;
  if (!MappedAsImage && directory.VirtualAddress >= nt->OptionalHeader.SizeOfHeaders) return nullptr;
  return static_cast<uint8_t*>(Base) + directory.VirtualAddress;
}
