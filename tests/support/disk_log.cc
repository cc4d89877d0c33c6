#include "support/disk_log.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <set>
#include <sstream>

namespace support {
namespace {

constexpr size_t kBlock = 4096;

// One thing done. Files are told apart by number: a name may come to mean another file.
struct Event {
  enum class Kind { kCreate, kEmpty, kWrite, kSyncFile, kSyncNames, kSyncAll, kRename, kExchange, kUnlink } kind;
  int file = 0;
  std::string name = {}, new_name = {};
  size_t offset = 0;
  std::string bytes = {};
};

using Names = std::map<std::string, int>;
using Files = std::map<int, std::string>;

struct Log {
  std::mutex mutex;
  bool on = false;
  std::string directory;
  Names first_names;  // that are synced
  Files first_files;
  std::vector<Event> events;

  Names names;                     // as they are now
  std::map<int, int> descriptors;  // open files of the directory, by descriptor
  std::set<int> directories;       // descriptors of the directory itself
  std::map<FILE*, int> streams;    // and the descriptors of streams
  int next_file = 0;
};

Log& TheLog() {
  static Log& log = *new Log;  // never destroyed: counts of a coverage build are written after everything else
  return log;
}

using Lock = std::lock_guard<std::mutex>;

// The name inside the directory; empty for paths elsewhere.
std::string NameOf(const char* path) {
  const std::string& directory = TheLog().directory;
  const std::string text = path;
  if (directory.empty() || text.size() <= directory.size() + 1 || text.compare(0, directory.size(), directory) != 0)
    return "";
  const std::string name = text.substr(directory.size() + 1);
  return text[directory.size()] == '/' && name.find('/') == std::string::npos ? name : "";
}

void NoteOpened(int fd, const char* path, int flags) {
  Log& log = TheLog();
  const Lock lock(log.mutex);
  if (!log.on || fd < 0) return;
  if (log.directory == path) log.directories.insert(fd);
  const std::string name = NameOf(path);
  if (name.empty()) return;
  const auto known = log.names.find(name);
  if (known == log.names.end()) {
    log.names[name] = log.next_file;
    log.events.push_back({Event::Kind::kCreate, log.next_file, name});
    log.descriptors[fd] = log.next_file++;
    return;
  }
  log.descriptors[fd] = known->second;
  if ((flags & O_TRUNC) != 0) log.events.push_back({Event::Kind::kEmpty, known->second, name});
}

void NoteWritten(int fd, size_t offset, const char* bytes, size_t count) {
  Log& log = TheLog();
  const Lock lock(log.mutex);
  const auto file = log.descriptors.find(fd);
  if (!log.on || file == log.descriptors.end()) return;
  log.events.push_back({Event::Kind::kWrite, file->second, {}, {}, offset, std::string(bytes, count)});
}

void NoteSynced(int fd, bool all) {
  Log& log = TheLog();
  const Lock lock(log.mutex);
  if (!log.on) return;
  if (all) {
    log.events.push_back({Event::Kind::kSyncAll});
    return;
  }
  if (log.directories.count(fd) != 0) log.events.push_back({Event::Kind::kSyncNames});
  const auto file = log.descriptors.find(fd);
  if (file != log.descriptors.end()) log.events.push_back({Event::Kind::kSyncFile, file->second});
}

void NoteClosed(int fd) {
  Log& log = TheLog();
  const Lock lock(log.mutex);
  log.descriptors.erase(fd);
  log.directories.erase(fd);
}

// Does to names what an event says. An event whose name is not there, since another was lost, does nothing.
void Apply(const Event& event, Names* names) {
  const auto from = names->find(event.name);
  switch (event.kind) {
    case Event::Kind::kCreate:
      (*names)[event.name] = event.file;
      break;
    case Event::Kind::kRename:
      if (from == names->end()) break;
      (*names)[event.new_name] = from->second;
      names->erase(event.name);
      break;
    case Event::Kind::kExchange: {
      const auto to = names->find(event.new_name);
      if (from != names->end() && to != names->end()) std::swap(from->second, to->second);
      break;
    }
    case Event::Kind::kUnlink:
      names->erase(event.name);
      break;
    default:
      break;
  }
}

void NoteNames(Event event) {
  Log& log = TheLog();
  const Lock lock(log.mutex);
  if (!log.on || event.name.empty()) return;
  Apply(event, &log.names);
  log.events.push_back(std::move(event));
}

void Put(const Event& write, std::string* bytes) {
  if (bytes->size() < write.offset + write.bytes.size()) bytes->resize(write.offset + write.bytes.size(), '\0');
  bytes->replace(write.offset, write.bytes.size(), write.bytes);
}

// A file of the disk.
struct File {
  std::string synced, now;
  std::set<size_t> touched;  // blocks, since it was synced

  void Touch(size_t from, size_t to) {
    for (size_t block = from / kBlock; block * kBlock < to; block++) touched.insert(block);
  }
  void Sync() {
    synced = now;
    touched.clear();
  }
};

// What is left of a file.
std::string Left(const File& file, Unsynced unsynced, std::mt19937* random) {
  if (unsynced == Unsynced::kKept) return file.now;
  if (unsynced == Unsynced::kDropped) return file.synced;
  const bool any = unsynced == Unsynced::kAnyOfThem;
  std::string left(any && (*random)() % 4 == 0 ? file.synced.size() : file.now.size(), '\0');
  for (size_t at = 0; at < left.size(); at += kBlock) {
    const bool touched = file.touched.count(at / kBlock) != 0;
    const auto way = touched && any ? (*random)() % 3 : 0;
    if (touched && way == 0) continue;
    const std::string& from = way == 1 ? file.now : file.synced;
    if (at >= from.size()) continue;
    const std::string kept = from.substr(at, std::min(kBlock, left.size() - at));
    left.replace(at, kept.size(), kept);
  }
  return left;
}

// The disk behind some events: its names as they are synced, and what was done to them since.
struct Disk {
  Names names;
  std::vector<Event> unsynced_names;
  std::map<int, File> files;

  void SyncNames() {
    for (const Event& event : unsynced_names) Apply(event, &names);
    unsynced_names.clear();
  }

  void Do(const Event& event) {
    switch (event.kind) {
      case Event::Kind::kEmpty: {
        File& file = files[event.file];
        file.Touch(0, file.now.size());
        file.now.clear();
        break;
      }
      case Event::Kind::kWrite:
        files[event.file].Touch(event.offset, event.offset + event.bytes.size());
        Put(event, &files[event.file].now);
        break;
      case Event::Kind::kSyncFile:
        files[event.file].Sync();
        break;
      case Event::Kind::kSyncAll:
        for (auto& [number, file] : files) file.Sync();
        SyncNames();
        break;
      case Event::Kind::kSyncNames:
        SyncNames();
        break;
      default:
        unsynced_names.push_back(event);
    }
  }
};

Disk DiskAfter(const Log& log, size_t count) {
  Disk disk;
  disk.names = log.first_names;
  for (const auto& [number, bytes] : log.first_files) disk.files[number] = {bytes, bytes, {}};
  for (size_t i = 0; i < count; i++) disk.Do(log.events[i]);
  return disk;
}

// What calls there are, and which of them fail.
struct CallPlan {
  bool on = false;
  int made = 0;
  int after = 0, count = 0, error = 0;
  bool interrupts = false;  // every other call of those that a signal can interrupt
  bool interrupted = false;
};
CallPlan calls;

// Whether the call that is about to be made on a descriptor fails. Sets errno then.
bool Fails(int fd, bool interruptible) {
  constexpr int kStandardStreams = 3;
  if (fd >= 0 && fd < kStandardStreams) return false;
  if (calls.interrupts && interruptible) {
    calls.interrupted = !calls.interrupted;
    if (calls.interrupted) errno = EINTR;
    return calls.interrupted;
  }
  if (!calls.on) return false;
  const int before = calls.made++;
  if (before < calls.after || before - calls.after >= calls.count) return false;
  errno = calls.error;
  return true;
}

constexpr int kNoDescriptor = -1;  // of calls on names

}  // namespace

FailingCalls::FailingCalls(int after, int count, int error) {
  calls = {};
  calls.after = after;
  calls.count = count;
  calls.error = error;
  calls.on = true;
}
FailingCalls::~FailingCalls() { calls = {}; }
int FailingCalls::made() const { return calls.made; }

InterruptedCalls::InterruptedCalls() {
  calls = {};
  calls.interrupts = true;
}
InterruptedCalls::~InterruptedCalls() { calls = {}; }

DiskLog::DiskLog(const std::string& directory, FirstNames first_names) {
  Log& log = TheLog();
  Names names;
  Files files;
  int next = 0;
  for (const auto& entry : std::filesystem::directory_iterator(directory)) {
    std::ifstream in(entry.path(), std::ios::binary);
    std::ostringstream bytes;
    bytes << in.rdbuf();
    names[entry.path().filename().string()] = next;
    files[next++] = bytes.str();
  }
  const Lock lock(log.mutex);
  log.directory = directory;
  log.names = names;
  log.first_names = first_names == FirstNames::kSynced ? names : Names();
  log.first_files = files;
  log.next_file = next;
  log.events.clear();
  if (first_names == FirstNames::kUnsynced) {
    for (const auto& [name, file] : names) log.events.push_back({Event::Kind::kCreate, file, name});
  }
  log.descriptors.clear();
  log.directories.clear();
  log.on = true;
}

DiskLog::~DiskLog() { Stop(); }

void DiskLog::Stop() {
  const Lock lock(TheLog().mutex);
  TheLog().on = false;
}

size_t DiskLog::events() const { return TheLog().events.size(); }

std::string DiskLog::Describe(size_t event) const {
  static constexpr const char* kKinds[] = {"create",   "empty",  "write",    "sync file", "sync names",
                                           "sync all", "rename", "exchange", "unlink"};
  const Event& e = TheLog().events[event];
  std::ostringstream text;
  text << kKinds[static_cast<int>(e.kind)] << " file " << e.file << " " << e.name << " " << e.new_name << " "
       << e.offset << "+" << e.bytes.size();
  return text.str();
}

size_t DiskLog::UnsyncedNames(size_t count) const { return DiskAfter(TheLog(), count).unsynced_names.size(); }

std::map<std::string, std::string> DiskLog::After(size_t count, Unsynced unsynced, size_t names,
                                                  std::mt19937* random) const {
  Disk disk = DiskAfter(TheLog(), count);
  for (size_t i = 0; i < disk.unsynced_names.size(); i++) {
    if ((names >> i & 1) != 0) Apply(disk.unsynced_names[i], &disk.names);
  }
  std::map<std::string, std::string> left;
  for (const auto& [name, file] : disk.names) left[name] = Left(disk.files[file], unsynced, random);
  return left;
}

}  // namespace support

using namespace support;

extern "C" {

int open(const char* path, int flags, ...) {
  mode_t mode = 0;
  if ((flags & O_CREAT) != 0) {
    va_list arguments;
    va_start(arguments, flags);
    mode = va_arg(arguments, mode_t);
    va_end(arguments);
  }
  if (Fails(kNoDescriptor, true)) return -1;
  const int fd = static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, flags, mode));
  NoteOpened(fd, path, flags);
  return fd;
}

ssize_t write(int fd, const void* buffer, size_t count) {
  if (Fails(fd, true)) return -1;
  const off_t at = lseek(fd, 0, SEEK_CUR);
  const ssize_t moved = syscall(SYS_write, fd, buffer, count);
  if (moved > 0 && at >= 0) {
    NoteWritten(fd, static_cast<size_t>(at), static_cast<const char*>(buffer), static_cast<size_t>(moved));
  }
  return moved;
}

int fsync(int fd) {
  if (Fails(fd, false)) return -1;
  const int result = static_cast<int>(syscall(SYS_fsync, fd));
  if (result == 0) NoteSynced(fd, false);
  return result;
}

int fdatasync(int fd) {
  if (Fails(fd, false)) return -1;
  const int result = static_cast<int>(syscall(SYS_fdatasync, fd));
  if (result == 0) NoteSynced(fd, false);
  return result;
}

int syncfs(int fd) noexcept {
  if (Fails(fd, false)) return -1;
  const int result = static_cast<int>(syscall(SYS_syncfs, fd));
  if (result == 0) NoteSynced(fd, true);
  return result;
}

int close(int fd) {
  NoteClosed(fd);
  const int result = static_cast<int>(syscall(SYS_close, fd));
  if (Fails(fd, true)) {
    calls.interrupted = false;  // nobody closes twice
    return -1;
  }
  return result;
}

int rename(const char* from, const char* to) noexcept {
  if (Fails(kNoDescriptor, false)) return -1;
  const int result = static_cast<int>(syscall(SYS_renameat2, AT_FDCWD, from, AT_FDCWD, to, 0));
  if (result == 0) NoteNames({Event::Kind::kRename, 0, NameOf(from), NameOf(to)});
  return result;
}

int renameat2(int from_directory, const char* from, int to_directory, const char* to, unsigned flags) noexcept {
  if (Fails(kNoDescriptor, false)) return -1;
  const int result = static_cast<int>(syscall(SYS_renameat2, from_directory, from, to_directory, to, flags));
  if (result == 0) {
    const Event::Kind kind = (flags & RENAME_EXCHANGE) != 0 ? Event::Kind::kExchange : Event::Kind::kRename;
    NoteNames({kind, 0, NameOf(from), NameOf(to)});
  }
  return result;
}

int unlink(const char* path) noexcept {
  if (Fails(kNoDescriptor, false)) return -1;
  const int result = static_cast<int>(syscall(SYS_unlinkat, AT_FDCWD, path, 0));
  if (result == 0) NoteNames({Event::Kind::kUnlink, 0, NameOf(path)});
  return result;
}

// The C library's streams write by a way of their own, which cannot be seen. These write by the write above.
FILE* fdopen(int fd, const char* mode) noexcept {
  if (Fails(fd, false)) return nullptr;
  static const cookie_io_functions_t kFunctions = {
      [](void* cookie, char* buffer, size_t count) -> ssize_t {
        return read(static_cast<int>(reinterpret_cast<intptr_t>(cookie)), buffer, count);
      },
      [](void* cookie, const char* buffer, size_t count) -> ssize_t {
        size_t done = 0;  // goes on after a short write, as the C library's way does
        while (done < count) {
          const ssize_t moved =
              write(static_cast<int>(reinterpret_cast<intptr_t>(cookie)), buffer + done, count - done);
          if (moved <= 0) break;
          done += static_cast<size_t>(moved);
        }
        return static_cast<ssize_t>(done);
      },
      [](void* cookie, off64_t* offset, int whence) {
        *offset = lseek(static_cast<int>(reinterpret_cast<intptr_t>(cookie)), *offset, whence);
        return *offset < 0 ? -1 : 0;
      },
      [](void* cookie) { return close(static_cast<int>(reinterpret_cast<intptr_t>(cookie))); }};
  FILE* const stream = fopencookie(reinterpret_cast<void*>(static_cast<intptr_t>(fd)), mode, kFunctions);
  const Lock lock(TheLog().mutex);
  if (stream != nullptr) TheLog().streams[stream] = fd;
  return stream;
}

int fileno(FILE* stream) noexcept {
  if (stream->_fileno >= 0) return stream->_fileno;
  const Lock lock(TheLog().mutex);
  const auto known = TheLog().streams.find(stream);
  return known != TheLog().streams.end() ? known->second : -1;
}

}  // extern "C"
