/* libVrkutil PE images: header checks and RVA mapping of 32-bit PE files,
 * and an in-process loader of 32-bit Windows DLLs with its process records.
 * All records are laid out for i386; the asserts below pin them. */
#ifndef VRK_PE_H
#define VRK_PE_H

#include "vrk_common.h"

VRK_EXTERN_C_BEGIN

/* ---- PE/COFF records, as in the file (little-endian, no padding) ---- */

typedef struct PE_IMAGE_FILE_HEADER {
  uint16_t Machine;
  uint16_t NumberOfSections;
  uint32_t TimeDateStamp;
  uint32_t PointerToSymbolTable;
  uint32_t NumberOfSymbols;
  uint16_t SizeOfOptionalHeader;
  uint16_t Characteristics;
} PE_IMAGE_FILE_HEADER;

typedef struct PE_IMAGE_DATA_DIRECTORY {
  uint32_t VirtualAddress;
  uint32_t Size;
} PE_IMAGE_DATA_DIRECTORY;

#define PE_NUMBEROF_DIRECTORY_ENTRIES 16
#define PE_DIRECTORY_ENTRY_EXPORT 0
#define PE_DIRECTORY_ENTRY_IMPORT 1
#define PE_DIRECTORY_ENTRY_BASERELOC 5

typedef struct PE_IMAGE_OPTIONAL_HEADER32 {
  uint16_t Magic;
  uint8_t MajorLinkerVersion;
  uint8_t MinorLinkerVersion;
  uint32_t SizeOfCode;
  uint32_t SizeOfInitializedData;
  uint32_t SizeOfUninitializedData;
  uint32_t AddressOfEntryPoint;
  uint32_t BaseOfCode;
  uint32_t BaseOfData;
  uint32_t ImageBase;
  uint32_t SectionAlignment;
  uint32_t FileAlignment;
  uint16_t MajorOperatingSystemVersion;
  uint16_t MinorOperatingSystemVersion;
  uint16_t MajorImageVersion;
  uint16_t MinorImageVersion;
  uint16_t MajorSubsystemVersion;
  uint16_t MinorSubsystemVersion;
  uint32_t Win32VersionValue;
  uint32_t SizeOfImage;
  uint32_t SizeOfHeaders;
  uint32_t CheckSum;
  uint16_t Subsystem;
  uint16_t DllCharacteristics;
  uint32_t SizeOfStackReserve;
  uint32_t SizeOfStackCommit;
  uint32_t SizeOfHeapReserve;
  uint32_t SizeOfHeapCommit;
  uint32_t LoaderFlags;
  uint32_t NumberOfRvaAndSizes;
  PE_IMAGE_DATA_DIRECTORY DataDirectory[PE_NUMBEROF_DIRECTORY_ENTRIES];
} PE_IMAGE_OPTIONAL_HEADER32;

/* The NT headers of a PE32 file (248 bytes). */
typedef struct PE_IMAGE_NT_HEADERS32 {
  uint32_t Signature;
  PE_IMAGE_FILE_HEADER FileHeader;
  PE_IMAGE_OPTIONAL_HEADER32 OptionalHeader;
} PE_IMAGE_NT_HEADERS32;

/* One entry of the section table (40 bytes). */
typedef struct PE_IMAGE_SECTION_HEADER {
  uint8_t Name[8];
  uint32_t VirtualSize; /* Misc.VirtualSize */
  uint32_t VirtualAddress;
  uint32_t SizeOfRawData;
  uint32_t PointerToRawData;
  uint32_t PointerToRelocations;
  uint32_t PointerToLinenumbers;
  uint16_t NumberOfRelocations;
  uint16_t NumberOfLinenumbers;
  uint32_t Characteristics;
} PE_IMAGE_SECTION_HEADER;

/* The export directory (40 bytes). */
typedef struct PE_IMAGE_EXPORT_DIRECTORY {
  uint32_t Characteristics;
  uint32_t TimeDateStamp;
  uint16_t MajorVersion;
  uint16_t MinorVersion;
  uint32_t Name;
  uint32_t Base;
  uint32_t NumberOfFunctions;
  uint32_t NumberOfNames;
  uint32_t AddressOfFunctions;
  uint32_t AddressOfNames;
  uint32_t AddressOfNameOrdinals;
} PE_IMAGE_EXPORT_DIRECTORY;

/* One import descriptor (20 bytes); a FirstThunk of 0 ends the array. */
typedef struct PE_IMAGE_IMPORT_DESCRIPTOR {
  uint32_t OriginalFirstThunk;
  uint32_t TimeDateStamp;
  uint32_t ForwarderChain;
  uint32_t Name;
  uint32_t FirstThunk;
} PE_IMAGE_IMPORT_DESCRIPTOR;

VRK_LAYOUT_ASSERT(sizeof(PE_IMAGE_FILE_HEADER) == 20, "file header");
VRK_LAYOUT_ASSERT(sizeof(PE_IMAGE_OPTIONAL_HEADER32) == 224, "PE32 optional header");
VRK_LAYOUT_ASSERT(sizeof(PE_IMAGE_NT_HEADERS32) == 248, "NT headers");
VRK_LAYOUT_ASSERT(offsetof(PE_IMAGE_NT_HEADERS32, FileHeader.SizeOfOptionalHeader) == 0x14, "SizeOfOptionalHeader");
VRK_LAYOUT_ASSERT(offsetof(PE_IMAGE_NT_HEADERS32, OptionalHeader.Magic) == 0x18, "Magic");
VRK_LAYOUT_ASSERT(offsetof(PE_IMAGE_NT_HEADERS32, OptionalHeader.AddressOfEntryPoint) == 0x28, "entry point");
VRK_LAYOUT_ASSERT(offsetof(PE_IMAGE_NT_HEADERS32, OptionalHeader.ImageBase) == 0x34, "ImageBase");
VRK_LAYOUT_ASSERT(offsetof(PE_IMAGE_NT_HEADERS32, OptionalHeader.SizeOfImage) == 0x50, "SizeOfImage");
VRK_LAYOUT_ASSERT(offsetof(PE_IMAGE_NT_HEADERS32, OptionalHeader.DllCharacteristics) == 0x5E, "DllCharacteristics");
VRK_LAYOUT_ASSERT(offsetof(PE_IMAGE_NT_HEADERS32, OptionalHeader.DataDirectory) == 0x78, "data directories");
VRK_LAYOUT_ASSERT(sizeof(PE_IMAGE_SECTION_HEADER) == 40, "section header");
VRK_LAYOUT_ASSERT(offsetof(PE_IMAGE_SECTION_HEADER, Characteristics) == 0x24, "section Characteristics");
VRK_LAYOUT_ASSERT(sizeof(PE_IMAGE_EXPORT_DIRECTORY) == 40, "export directory");
VRK_LAYOUT_ASSERT(offsetof(PE_IMAGE_EXPORT_DIRECTORY, AddressOfNameOrdinals) == 0x24, "AddressOfNameOrdinals");
VRK_LAYOUT_ASSERT(sizeof(PE_IMAGE_IMPORT_DESCRIPTOR) == 20, "import descriptor");

/* Results of PE_VerifyImageHeader (Windows NT status codes). */
#define PE_STATUS_OK 0x00000000u
#define PE_STATUS_INVALID_IMAGE_PROTECT 0xC0000130u
#define PE_STATUS_INVALID_IMAGE_FORMAT 0xC000007Bu

/* Placement codes of PE_SeccionDeRVAEx. */
#define PE_RVA_IN_SECTION 0
#define PE_RVA_IN_HEADERS 1
#define PE_RVA_BEFORE_SECTIONS 2
#define PE_RVA_IN_GAP 3
#define PE_RVA_PAST_SECTIONS 4

/* ---- Header checks and RVA mapping (no allocation, no state) ---- */

/* 1 when the first two bytes are "MZ" or "ZM", else 0. */
VRK_API int PE_EsMZ(const void *bytes) VRK_NOEXCEPT;
/* 1 when the first four bytes are "PE\0\0", else 0. */
VRK_API int PE_EsPE(const void *bytes) VRK_NOEXCEPT;
/* 0 when the NT headers and their NumberOfSections section headers describe
 * a sound i386 PE32 image, else PE_STATUS_INVALID_IMAGE_PROTECT (not NT
 * headers at all) or PE_STATUS_INVALID_IMAGE_FORMAT. */
VRK_API uint32_t PE_VerifyImageHeader(const PE_IMAGE_NT_HEADERS32 *nt,
                                      const PE_IMAGE_SECTION_HEADER *sections) VRK_NOEXCEPT;
/* Index of the section holding `rva` (the highest-numbered one when they
 * overlap); for an RVA in no section, count - 1 when it lies above section
 * 0's start, else 0. 0 for an empty or missing table. */
VRK_API uint32_t PE_SeccionDeRVA(const PE_IMAGE_SECTION_HEADER *sections, int count, uint32_t rva) VRK_NOEXCEPT;
/* File position of `rva` against the section PE_SeccionDeRVA picks, without
 * bounds tests; RVAs in the headers (or with no table) map to themselves. */
VRK_API uint32_t PE_SeekDeRVA(const PE_IMAGE_SECTION_HEADER *sections, int count, uint32_t rva) VRK_NOEXCEPT;
/* Where `rva` lies in a table sorted by VirtualAddress: one of the
 * PE_RVA_... codes, with the section concerned in *index. */
VRK_API int PE_SeccionDeRVAEx(const PE_IMAGE_SECTION_HEADER *sections, const PE_IMAGE_NT_HEADERS32 *nt,
                              uint32_t rva, uint32_t *index) VRK_NOEXCEPT;
/* Number of file bytes readable at the position of `rva` (0 to 1024), with
 * the position in *pos; *pos is left alone when 0 is returned. */
VRK_API int PE_SeekDeRVAEx(const PE_IMAGE_SECTION_HEADER *sections, const PE_IMAGE_NT_HEADERS32 *nt, uint32_t rva,
                           uint32_t *pos) VRK_NOEXCEPT;

/* ---- Module loader ---- */

/* Native-module callbacks of a process record (plain C calling convention):
 * load(name, 0, 0) gives a native module handle or null; free releases one;
 * getProc(handle, name or ordinal) gives an export's address or 0. An
 * ordinal is passed as a pointer value of 1 to 0xFFFF. */
typedef void *(*MODLOAD_LOAD_FN)(const char *name, uint32_t reserved1, uint32_t reserved2);
typedef void (*MODLOAD_FREE_FN)(void *handle);
typedef uint32_t (*MODLOAD_GETPROC_FN)(void *handle, const char *nameOrOrdinal);

struct PELOAD_MODULE;

/* A process record: one set of modules that see one another. Created by
 * MODLOAD_CreateProcess, released with everything in it by
 * MODLOAD_TerminateProcess. */
typedef struct MODLOAD_PROCESS {
  MODLOAD_LOAD_FN load; /* may be null: then no native module is loaded */
  MODLOAD_FREE_FN free; /* must be set whenever load is */
  MODLOAD_GETPROC_FN getProc; /* must be set whenever load is */
  struct PELOAD_MODULE *modules; /* newest first */
} MODLOAD_PROCESS;

VRK_LAYOUT_ASSERT(sizeof(MODLOAD_PROCESS) == 16, "MODLOAD_PROCESS");
VRK_LAYOUT_ASSERT(offsetof(MODLOAD_PROCESS, modules) == 12, "MODLOAD_PROCESS.modules");

/* One exported function of a PE module, in a singly linked list. */
typedef struct PELOAD_EXPORT {
  const char *name; /* inside the image; null for an export without a name */
  uint32_t ordinal; /* ordinal base + index; 0xFFFFFFFF for an empty slot */
  uint32_t address; /* base + RVA; 0xFFFFFFFF for an empty slot */
  struct PELOAD_EXPORT *next;
} PELOAD_EXPORT;

VRK_LAYOUT_ASSERT(sizeof(PELOAD_EXPORT) == 16, "PELOAD_EXPORT");

#define PELOAD_NAME_SIZE 40

/* The in-memory image of one PE module, owned by its module entry. */
typedef struct PELOAD_IMAGE {
  uint8_t *image; /* base of the image */
  PELOAD_EXPORT *exports; /* reverse function-array order */
  int inPlace; /* 1: the image is the virtual file's own memory */
  char name[PELOAD_NAME_SIZE]; /* export-directory name, cut to 39 characters */
  uint32_t size; /* bytes of the image that the loader may read and write */
} PELOAD_IMAGE;

VRK_LAYOUT_ASSERT(offsetof(PELOAD_IMAGE, inPlace) == 8, "PELOAD_IMAGE.inPlace");
VRK_LAYOUT_ASSERT(offsetof(PELOAD_IMAGE, name) == 12, "PELOAD_IMAGE.name");
VRK_LAYOUT_ASSERT(offsetof(PELOAD_IMAGE, size) == 52, "PELOAD_IMAGE.size");
VRK_LAYOUT_ASSERT(sizeof(PELOAD_IMAGE) == 56, "PELOAD_IMAGE");

#define PELOAD_KIND_PE 0
#define PELOAD_KIND_NATIVE 1
#define PELOAD_SHORT_NAME_SIZE 16

/* A module entry: the handle the loader's functions give out and take back.
 * `name` holds the first 15 characters of the module's name; `fullName` the
 * whole name, which is what lookups by name compare. */
typedef struct PELOAD_MODULE {
  struct PELOAD_MODULE *next;
  void *handle; /* PE: its PELOAD_IMAGE; native: the handle from load */
  MODLOAD_PROCESS *owner;
  int32_t refcount;
  int32_t kind; /* PELOAD_KIND_PE or PELOAD_KIND_NATIVE */
  char name[PELOAD_SHORT_NAME_SIZE];
  const char *fullName; /* stored in the entry's own block, after the record */
} PELOAD_MODULE;

VRK_LAYOUT_ASSERT(offsetof(PELOAD_MODULE, refcount) == 12, "PELOAD_MODULE.refcount");
VRK_LAYOUT_ASSERT(offsetof(PELOAD_MODULE, name) == 20, "PELOAD_MODULE.name");
VRK_LAYOUT_ASSERT(offsetof(PELOAD_MODULE, fullName) == 36, "PELOAD_MODULE.fullName");
VRK_LAYOUT_ASSERT(sizeof(PELOAD_MODULE) == 40, "PELOAD_MODULE");

/* flags == 0: finds the module named `nameOrHandle` (a string; letter case
 * ignored) in the process, or asks the process's load callback for a native
 * module. flags != 0: `nameOrHandle` is an open virtual-file handle (the
 * caller's; not closed) of a PE DLL that is read, relocated, bound, started
 * and listed. Null on any failure, with the image record released. */
VRK_API PELOAD_MODULE *PELOAD_LoadLibraryEx(const void *nameOrHandle, MODLOAD_PROCESS *process,
                                           uint32_t flags) VRK_NOEXCEPT;
/* Address of the export named `nameOrOrdinal` (a pointer value above
 * 0xFFFF) or of ordinal 1 to 0xFFFF; 0 when absent. */
VRK_API uint32_t PELOAD_GetProcAddress(PELOAD_MODULE *module, const char *nameOrOrdinal) VRK_NOEXCEPT;
/* Takes one reference away; a native module whose count reaches 0 is
 * released and its entry removed from the process. PE images stay until
 * MODLOAD_TerminateProcess. Always 1. */
VRK_API int PELOAD_FreeLibrary(PELOAD_MODULE *module) VRK_NOEXCEPT;
/* Copies the export-directory name of the PE file `handle` into dst (at most
 * len - 1 characters, zero-padded); 1 on success, 0 when the file cannot be
 * read as a module. Nothing is relocated, bound or run. */
VRK_API int PELOAD_GetDllNameH(VFileHandle handle, char *dst, uint32_t len) VRK_NOEXCEPT;

/* ---- Process records ---- */

/* A new process record with the three callbacks; when `handle` is not null
 * the PE module in it is loaded first (whether that succeeds is not
 * reported). Null only when the record cannot be allocated. */
VRK_API MODLOAD_PROCESS *MODLOAD_CreateProcess(VFileHandle handle, MODLOAD_LOAD_FN load, MODLOAD_FREE_FN free,
                                               MODLOAD_GETPROC_FN getProc) VRK_NOEXCEPT;
/* Releases every module of the record, oldest first, and the record. */
VRK_API void MODLOAD_TerminateProcess(MODLOAD_PROCESS *process) VRK_NOEXCEPT;

VRK_EXTERN_C_END

#endif /* VRK_PE_H */
