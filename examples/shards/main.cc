// shards: splits a list of keys over dictionaries in a few mapped files, and looks keys up in them; through the C++
// face.
//
// Only one shard's keys are in memory at a time: a first pass over the list spools each key to the file of its shard, a
// second one builds shard after shard.

#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <map>

#include "examples/shard.h"

namespace {

constexpr char kUsage[] =
    "usage: shards build LIST DIRECTORY NAME SHARDS FILES    splits the lines of LIST over SHARDS dictionaries in "
    "FILES files\n"
    "       shards check DIRECTORY NAME                      compares every byte with what the manifest says\n"
    "       shards look-up DIRECTORY NAME KEY...             tells each key's shard and number\n";

constexpr UByte kProbe = 4;         // a foreign key passes with a chance of about 1 in 4 thousand million
constexpr UInt kMostShards = 1024;  // as many spools are open at a time

struct Failure {
  std::string text;
};

[[noreturn]] void Fail(const std::string& what) { throw Failure{what}; }

struct CloseFile {
  void operator()(std::FILE* file) const { std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, CloseFile>;

File OpenFile(const std::string& path, const char* mode) {
  File file(std::fopen(path.c_str(), mode));
  if (file == nullptr) Fail("cannot open " + path + ": " + std::strerror(errno));
  return file;
}

struct CloseChannel {
  void operator()(Channel* channel) const { ChannelClose(channel); }
};
using Output = std::unique_ptr<Channel, CloseChannel>;

UInt Number(const std::string& text, UInt most) {
  UInt number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size() || number == 0 || number > most) {
    Fail(text + " is no number from 1 to " + std::to_string(most) + "\n" + kUsage);
  }
  return number;
}

std::string SpoolName(const std::string& directory, UInt shard) {
  return directory + "/spool-" + std::to_string(shard);
}

// Writes each line of the list, behind its length, to the spool of its shard.
void Spool(const std::string& list, const std::string& directory, UInt shards) {
  std::ifstream in(list, std::ios::binary);
  if (!in || (in.peek(), in.bad())) Fail("cannot read " + list + ": " + std::strerror(errno));
  in.clear();
  std::vector<File> spools;
  for (UInt i = 0; i < shards; i++) spools.push_back(OpenFile(SpoolName(directory, i), "wb"));
  for (std::string line; std::getline(in, line);) {
    if (line.empty()) continue;
    if (line.size() > 65535) Fail(list + ": a line of more than 65535 bytes is no key");
    const UShort length = static_cast<UShort>(line.size());
    std::FILE* spool = spools[shard::Of(line, shards)].get();
    std::fwrite(&length, sizeof length, 1, spool);
    std::fwrite(line.data(), 1, line.size(), spool);
  }
  for (File& spool : spools) {
    if (std::fflush(spool.get()) != 0 || std::ferror(spool.get())) Fail("cannot write to " + directory);
  }
}

// The distinct keys of a shard, in the order of the list. The builder never ends on equal ones.
std::vector<std::string> Unspool(const std::string& directory, UInt shard) {
  const std::string name = SpoolName(directory, shard);
  const File spool = OpenFile(name, "rb");
  qx::Table<UByte> seen(1024);
  std::vector<std::string> keys;
  for (UShort length = 0; std::fread(&length, sizeof length, 1, spool.get()) == 1;) {
    std::string key(length, '\0');
    if (std::fread(key.data(), 1, length, spool.get()) != length) Fail(name + " was cut short");
    const UInt before = seen.size();
    seen.Insert(key);
    if (seen.size() > before) keys.push_back(std::move(key));
  }
  return keys;
}

void Build(const std::string& list, const std::string& directory, const std::string& name, UInt shards, UInt files) {
  const auto start = std::chrono::steady_clock::now();
  Spool(list, directory, shards);
  shard::Manifest manifest;
  size_t bytes = 0;
  for (UInt file = 0; file < files; file++) {
    const std::string file_name = name + "-" + std::to_string(file) + ".shards";
    const std::string path = directory + "/" + file_name;
    const size_t begin = manifest.pieces.size();
    Output out(ChannelNew(-1, -1));
    if (!ChannelOpenFile(out.get(), path.c_str(), "w")) Fail("cannot open " + path + ": " + std::strerror(errno));
    size_t written = 0;
    for (UInt i = static_cast<UInt>(ULong{shards} * file / files); i < ULong{shards} * (file + 1) / files; i++) {
      const std::vector<std::string> keys = Unspool(directory, i);
      const qx::Dict dict = qx::Dict::Build(keys, {.probe = kProbe, .verbose = false});
      shard::Piece piece{
          .file = file_name, .offset = written, .bytes = 0, .keys = dict.size(), .first = manifest.keys, .checksum = 0};
      if (!HashDictMMWrite(dict.get(), out.get(), &written)) Fail("cannot write " + path + ": " + std::strerror(errno));
      piece.bytes = written - piece.offset;
      manifest.keys += piece.keys;
      manifest.pieces.push_back(std::move(piece));
      unlink(SpoolName(directory, i).c_str());
    }
    if (!ChannelSync(out.get()) || !ChannelClose(out.release()))
      Fail("cannot write " + path + ": " + std::strerror(errno));
    // What lies there now is what the manifest vouches for.
    const shard::Mapping mapping(path);
    for (size_t i = begin; i < manifest.pieces.size(); i++) {
      shard::Piece& piece = manifest.pieces[i];
      piece.checksum = Fingerprint(mapping.bytes().data() + piece.offset, static_cast<UInt>(piece.bytes));
    }
    bytes += written;
  }
  // Whoever opens the set finds the old manifest or the new one.
  const std::string path = directory + "/" + name + ".manifest";
  const std::string text = shard::Text(manifest);
  {
    const File out = OpenFile(path + ".new", "wb");
    if (std::fwrite(text.data(), 1, text.size(), out.get()) != text.size() || std::fflush(out.get()) != 0 ||
        fsync(fileno(out.get())) != 0) {
      Fail("cannot write " + path + ".new: " + std::strerror(errno));
    }
  }
  if (std::rename((path + ".new").c_str(), path.c_str()) != 0)
    Fail("cannot write " + path + ": " + std::strerror(errno));
  const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - start;
  std::printf("%lu keys in %u shards in %u files, %.1f MiB, in %.2f s\n", manifest.keys, shards, files,
              static_cast<double>(bytes) / (1 << 20), seconds.count());
  const auto [least, most] = std::ranges::minmax(manifest.pieces, {}, &shard::Piece::keys);
  std::printf("the smallest shard has %u keys, the largest %u\n", least.keys, most.keys);
}

// The set, with those of its files mapped that have been asked for.
class Set {
 public:
  Set(const std::string& directory, const std::string& name) : directory_(directory) {
    const std::string path = directory + "/" + name + ".manifest";
    std::ifstream in(path, std::ios::binary);
    if (!in) Fail("cannot read " + path + ": " + std::strerror(errno));
    manifest_ = shard::Parse(in, path);
  }

  const shard::Manifest& manifest() const { return manifest_; }
  UInt shards() const { return static_cast<UInt>(manifest_.pieces.size()); }

  qx::Dict Open(UInt shard, bool verify) {
    const shard::Piece& piece = manifest_.pieces[shard];
    const auto mapping = files_.try_emplace(piece.file, directory_ + "/" + piece.file).first;
    return shard::Open(mapping->second.bytes(), piece, verify);
  }

 private:
  std::string directory_;
  shard::Manifest manifest_;
  std::map<std::string, shard::Mapping> files_;
};

void Check(Set set) {
  for (UInt i = 0; i < set.shards(); i++) set.Open(i, true);
  std::printf("%lu keys in %u shards, every byte as the manifest says\n", set.manifest().keys, set.shards());
}

void LookUp(Set set, const std::vector<std::string>& keys) {
  for (const std::string& key : keys) {
    const UInt shard = shard::Of(key, set.shards());
    const std::optional<Id> id = set.Open(shard, false).Find(key);
    if (id) {
      const shard::Piece& piece = set.manifest().pieces[shard];
      std::printf("%-24s shard %u of %s, number %lu\n", key.c_str(), shard, piece.file.c_str(), piece.first + *id);
    } else {
      std::printf("%-24s would be in shard %u, and is not\n", key.c_str(), shard);
    }
  }
}

void Run(const std::vector<std::string>& arguments) {
  const std::string command = arguments.empty() ? "" : arguments[0];
  if (command == "build" && arguments.size() == 6) {
    const UInt shards = Number(arguments[4], kMostShards);
    Build(arguments[1], arguments[2], arguments[3], shards, Number(arguments[5], shards));
  } else if (command == "check" && arguments.size() == 3) {
    Check(Set(arguments[1], arguments[2]));
  } else if (command == "look-up" && arguments.size() > 3) {
    LookUp(Set(arguments[1], arguments[2]), {arguments.begin() + 3, arguments.end()});
  } else {
    Fail(std::string("nothing to do\n") + kUsage);
  }
}

}  // namespace

int main(int argc, char** argv) {
  try {
    Run({argv + 1, argv + argc});
  } catch (const Failure& failure) {
    std::fprintf(stderr, "shards: %s\n", failure.text.c_str());
    return 1;
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "shards: %s\n", failure.what());
    return 1;
  }
  return 0;
}
