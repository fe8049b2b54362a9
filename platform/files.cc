// The file layer: "\??\X:\..." object names resolved onto host folders, file
// handles in the kernel's handle table, reads at explicit offsets with pread.
//
// One mutex guards the drive table and the fault injection state; it is never
// held across a host file system call. A file object is read with pread, so
// reads on different handles (or on one handle with explicit offsets) run
// side by side; only reads at the current position take the object's own lock.

#include "platform/files.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <mutex>
#include <string>
#include <vector>

#include "platform/files_control.h"
#include "platform/handles.h"

namespace {

struct DriveTable {
  std::mutex lock;
  std::string folders[26];  // by letter A to Z; empty: not mapped
  bool defaultsApplied = false;
  uint64_t failReadAt = 0;  // read number that fails, 0 for none
  NTSTATUS failReadStatus = STATUS_SUCCESS;
};

std::atomic<uint64_t> readCount{0};

// Never destroyed: threads may still read the script while the process exits.
DriveTable& Drives() {
  static DriveTable* table = new DriveTable;
  return *table;
}

// The environment's default for drive C, taken once, at the first use of the
// table. Called with the lock held.
void ApplyDriveDefaults(DriveTable& table) {
  if (table.defaultsApplied) return;
  table.defaultsApplied = true;
  const char* folder = std::getenv("MR740_DRIVE_C");
  if (folder && *folder) table.folders['C' - 'A'] = folder;
}

struct FileObject {
  int fd = -1;
  bool readable = false;
  std::mutex positionLock;  // only for reads at the current position
  uint64_t position = 0;
};

void CloseFileObject(void* object) {
  auto* file = static_cast<FileObject*>(object);
  if (file->fd >= 0) ::close(file->fd);
  delete file;
}

// Appends the UTF-8 form of one character (a surrogate pair already joined).
void AppendUtf8(std::string* out, uint32_t c) {
  if (c < 0x80) {
    out->push_back(char(c));
  } else if (c < 0x800) {
    out->push_back(char(0xC0 | (c >> 6)));
    out->push_back(char(0x80 | (c & 0x3F)));
  } else if (c < 0x10000) {
    out->push_back(char(0xE0 | (c >> 12)));
    out->push_back(char(0x80 | ((c >> 6) & 0x3F)));
    out->push_back(char(0x80 | (c & 0x3F)));
  } else {
    out->push_back(char(0xF0 | (c >> 18)));
    out->push_back(char(0x80 | ((c >> 12) & 0x3F)));
    out->push_back(char(0x80 | ((c >> 6) & 0x3F)));
    out->push_back(char(0x80 | (c & 0x3F)));
  }
}

// Characters a Windows file name cannot hold; "/" also because it is the
// host's separator and would let a name step out of its folder.
bool IsForbiddenNameChar(char16_t c) {
  if (c < 0x20) return true;
  switch (c) {
    case u'<':
    case u'>':
    case u':':
    case u'"':
    case u'/':
    case u'|':
    case u'?':
    case u'*':
      return true;
    default:
      return false;
  }
}

// A parsed object name: the drive and the components below its root, each in
// UTF-8.
struct ParsedName {
  char drive = 0;  // 'A' to 'Z'
  std::vector<std::string> components;
};

// "\??\X:\a\b.txt" -> drive X, components {a, b.txt}. False for anything else:
// another prefix, no drive, an empty component (a doubled or trailing "\"),
// "." or "..", a character a file name cannot hold, a lone surrogate.
bool ParseObjectName(const std::u16string& name, ParsedName* parsed) {
  static const char16_t kPrefix[] = u"\\??\\";
  if (name.size() < 8 || name.compare(0, 4, kPrefix) != 0) return false;
  char16_t letter = name[4];
  if (letter >= u'a' && letter <= u'z') letter = char16_t(letter - 0x20);
  if (letter < u'A' || letter > u'Z' || name[5] != u':' || name[6] != u'\\') return false;
  parsed->drive = char(letter);
  parsed->components.clear();
  std::u16string_view rest(name);
  rest.remove_prefix(7);
  while (true) {
    size_t end = rest.find(u'\\');
    std::u16string_view part = rest.substr(0, end);
    if (part.empty() || part == u"." || part == u"..") return false;
    std::string component;
    for (size_t i = 0; i < part.size(); ++i) {
      char16_t c = part[i];
      if (IsForbiddenNameChar(c)) return false;
      if (c >= 0xD800 && c <= 0xDBFF) {
        if (i + 1 >= part.size() || part[i + 1] < 0xDC00 || part[i + 1] > 0xDFFF) return false;
        AppendUtf8(&component, 0x10000 + ((uint32_t(c - 0xD800) << 10) | (part[i + 1] - 0xDC00)));
        ++i;
      } else if (c >= 0xDC00 && c <= 0xDFFF) {
        return false;
      } else {
        AppendUtf8(&component, c);
      }
    }
    parsed->components.push_back(std::move(component));
    if (end == std::u16string_view::npos) break;
    rest.remove_prefix(end + 1);
  }
  return true;
}

std::string DriveFolder(char drive) {
  DriveTable& table = Drives();
  std::lock_guard<std::mutex> guard(table.lock);
  ApplyDriveDefaults(table);
  return table.folders[drive - 'A'];
}

bool EqualIgnoringAsciiCase(const std::string& a, const std::string& b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    char x = a[i], y = b[i];
    if (x >= 'a' && x <= 'z') x = char(x - 0x20);
    if (y >= 'a' && y <= 'z') y = char(y - 0x20);
    if (x != y) return false;
  }
  return true;
}

enum class EntryKind { Missing, Folder, Other };

EntryKind KindOf(const std::string& path) {
  struct stat info;
  if (::stat(path.c_str(), &info) != 0) return EntryKind::Missing;
  return S_ISDIR(info.st_mode) ? EntryKind::Folder : EntryKind::Other;
}

// The entry of `folder` whose name equals `name` but for ASCII case, or an
// empty string. With `foldersOnly` only sub folders count. When several
// match (a case-sensitive host can hold "a.txt" beside "A.TXT") the smallest
// name by byte order wins, so the choice does not depend on the directory's
// order.
std::string FindEntryIgnoringCase(const std::string& folder, const std::string& name,
                                  bool foldersOnly) {
  DIR* dir = ::opendir(folder.c_str());
  if (!dir) return std::string();
  std::string best;
  while (struct dirent* entry = ::readdir(dir)) {
    std::string candidate = entry->d_name;
    if (!EqualIgnoringAsciiCase(candidate, name)) continue;
    if (foldersOnly && KindOf(folder + "/" + candidate) != EntryKind::Folder) continue;
    if (best.empty() || candidate < best) best = candidate;
  }
  ::closedir(dir);
  return best;
}

NTSTATUS StatusOfErrno(int error) {
  switch (error) {
    case ENOENT:
    case ENOTDIR:
      return STATUS_OBJECT_PATH_NOT_FOUND;
    case EACCES:
    case EPERM:
    case EISDIR:
    case EROFS:
      return STATUS_ACCESS_DENIED;
    case ENAMETOOLONG:
      return STATUS_OBJECT_NAME_INVALID;
    case ENOMEM:
    case EMFILE:
    case ENFILE:
      return STATUS_INSUFFICIENT_RESOURCES;
    default:
      return STATUS_UNSUCCESSFUL;
  }
}

// Opens `path` as a regular file for reading. O_NONBLOCK keeps a FIFO of that
// name from blocking the open; anything but a regular file is refused.
NTSTATUS OpenRegularFile(const std::string& path, bool create, bool* created, int* fdOut) {
  *created = false;
  int fd = -1;
  if (create) {
    fd = ::open(path.c_str(), O_RDONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NONBLOCK, 0644);
    if (fd >= 0) {
      *created = true;
    } else if (errno != EEXIST) {
      return StatusOfErrno(errno);
    }
  }
  if (fd < 0) {
    fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) return StatusOfErrno(errno);
  }
  struct stat info;
  if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
    ::close(fd);
    return STATUS_ACCESS_DENIED;
  }
  int flags = ::fcntl(fd, F_GETFL);
  if (flags >= 0) ::fcntl(fd, F_SETFL, flags & ~O_NONBLOCK);
  *fdOut = fd;
  return STATUS_SUCCESS;
}

HANDLE MakeFileHandle(int fd, bool readable) {
  auto* file = new FileObject;
  file->fd = fd;
  file->readable = readable;
  return CreatePlatformHandle(HandleKind::File, file, CloseFileObject);
}

}  // namespace

bool MapDosDrive(char letter, const std::string& folder) {
  if (letter >= 'a' && letter <= 'z') letter = char(letter - 0x20);
  if (letter < 'A' || letter > 'Z') return false;
  DriveTable& table = Drives();
  std::lock_guard<std::mutex> guard(table.lock);
  ApplyDriveDefaults(table);
  table.folders[letter - 'A'] = folder;
  return true;
}

void UnmapAllDosDrives() {
  DriveTable& table = Drives();
  std::lock_guard<std::mutex> guard(table.lock);
  table.defaultsApplied = true;
  for (std::string& folder : table.folders) folder.clear();
}

bool HostPathOfObjectName(const std::u16string& objectName, std::string* hostPath) {
  ParsedName parsed;
  if (!ParseObjectName(objectName, &parsed)) return false;
  std::string path = DriveFolder(parsed.drive);
  if (path.empty()) return false;
  for (const std::string& component : parsed.components) path += "/" + component;
  *hostPath = path;
  return true;
}

bool OpenHostFileForReading(const std::string& hostPath, HANDLE* fileHandle) {
  if (!fileHandle || hostPath.empty()) return false;
  bool created = false;
  int fd = -1;
  if (!NT_SUCCESS(OpenRegularFile(hostPath, false, &created, &fd))) return false;
  *fileHandle = MakeFileHandle(fd, true);
  return true;
}

void FileFailRead(uint64_t nth, NTSTATUS status) {
  DriveTable& table = Drives();
  std::lock_guard<std::mutex> guard(table.lock);
  table.failReadAt = nth == 0 ? 0 : readCount.load() + nth;
  table.failReadStatus = status;
}

uint64_t FileReadCount() { return readCount.load(); }

NTSTATUS ZwCreateFile(HANDLE* fileHandle, ACCESS_MASK desiredAccess, OBJECT_ATTRIBUTES* attributes,
                      IO_STATUS_BLOCK* ioStatus, LARGE_INTEGER* /*allocationSize*/,
                      ULONG /*fileAttributes*/, ULONG /*shareAccess*/, ULONG createDisposition,
                      ULONG /*createOptions*/, void* /*eaBuffer*/, ULONG /*eaLength*/) {
  if (!fileHandle || !attributes || !ioStatus) return STATUS_INVALID_PARAMETER;
  if (createDisposition != FILE_OPEN && createDisposition != FILE_OPEN_IF) {
    return STATUS_NOT_SUPPORTED;
  }
  const UNICODE_STRING* name = attributes->ObjectName;
  if (attributes->RootDirectory || !name || name->Length == 0 || (name->Length & 1) ||
      !name->Buffer) {
    return STATUS_OBJECT_NAME_INVALID;
  }
  ParsedName parsed;
  if (!ParseObjectName(std::u16string(name->Buffer, name->Length / 2), &parsed)) {
    return STATUS_OBJECT_NAME_INVALID;
  }
  std::string path = DriveFolder(parsed.drive);
  if (path.empty() || KindOf(path) != EntryKind::Folder) return STATUS_OBJECT_PATH_NOT_FOUND;

  // Walk down level by level: the exact name first, then, for a name that
  // asks for it, an entry that differs only in ASCII case.
  const bool ignoreCase = (attributes->Attributes & OBJ_CASE_INSENSITIVE) != 0;
  const size_t levels = parsed.components.size();
  for (size_t i = 0; i + 1 < levels; ++i) {
    const std::string& component = parsed.components[i];
    if (KindOf(path + "/" + component) == EntryKind::Folder) {
      path += "/" + component;
      continue;
    }
    std::string match = ignoreCase ? FindEntryIgnoringCase(path, component, true) : std::string();
    if (match.empty()) return STATUS_OBJECT_PATH_NOT_FOUND;
    path += "/" + match;
  }
  const std::string& leaf = parsed.components[levels - 1];
  std::string leafPath = path + "/" + leaf;
  if (KindOf(leafPath) == EntryKind::Missing && ignoreCase) {
    std::string match = FindEntryIgnoringCase(path, leaf, false);
    if (!match.empty()) leafPath = path + "/" + match;
  }

  bool created = false;
  int fd = -1;
  NTSTATUS status = OpenRegularFile(leafPath, createDisposition == FILE_OPEN_IF, &created, &fd);
  if (status == STATUS_OBJECT_PATH_NOT_FOUND && createDisposition == FILE_OPEN &&
      KindOf(path) == EntryKind::Folder) {
    status = STATUS_OBJECT_NAME_NOT_FOUND;  // the folder is there, the file is not
  }
  if (!NT_SUCCESS(status)) {
    ioStatus->Status = status;
    ioStatus->Information = 0;
    return status;
  }
  const bool readable = (desiredAccess & (FILE_READ_DATA | GENERIC_READ)) != 0;
  *fileHandle = MakeFileHandle(fd, readable);
  ioStatus->Status = STATUS_SUCCESS;
  ioStatus->Information = created ? FILE_CREATED : FILE_OPENED;
  return STATUS_SUCCESS;
}

NTSTATUS ZwReadFile(HANDLE fileHandle, HANDLE event, void* apcRoutine, void* apcContext,
                    IO_STATUS_BLOCK* ioStatus, void* buffer, ULONG length,
                    LARGE_INTEGER* byteOffset, ULONG* key) {
  const uint64_t number = readCount.fetch_add(1) + 1;
  auto* file = static_cast<FileObject*>(ReferencePlatformHandle(fileHandle, HandleKind::File));
  if (!file) return STATUS_INVALID_HANDLE;
  if (event || apcRoutine || apcContext || key || !ioStatus || (length && !buffer) ||
      (byteOffset && byteOffset->QuadPart < 0)) {
    return STATUS_INVALID_PARAMETER;
  }
  if (!file->readable) return STATUS_ACCESS_DENIED;
  {
    DriveTable& table = Drives();
    std::lock_guard<std::mutex> guard(table.lock);
    if (table.failReadAt != 0 && number >= table.failReadAt) {
      table.failReadAt = 0;
      ioStatus->Status = table.failReadStatus;
      ioStatus->Information = 0;
      return table.failReadStatus;
    }
  }

  std::unique_lock<std::mutex> positionGuard(file->positionLock, std::defer_lock);
  uint64_t offset;
  if (byteOffset) {
    offset = uint64_t(byteOffset->QuadPart);
  } else {
    positionGuard.lock();
    offset = file->position;
  }
  size_t done = 0;
  auto* bytes = static_cast<uint8_t*>(buffer);
  while (done < length) {
    ssize_t got = ::pread(file->fd, bytes + done, length - done, off_t(offset + done));
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) {
      ioStatus->Status = STATUS_IO_DEVICE_ERROR;
      ioStatus->Information = 0;
      return STATUS_IO_DEVICE_ERROR;
    }
    if (got == 0) break;
    done += size_t(got);
  }
  if (!byteOffset) file->position = offset + done;
  NTSTATUS status = (length != 0 && done == 0) ? STATUS_END_OF_FILE : STATUS_SUCCESS;
  ioStatus->Status = status;
  ioStatus->Information = done;
  return status;
}
