// A set of keys that is too large for one dictionary, one file or one machine, cut into shards by the keys'
// fingerprints.
//
// Every key belongs to one shard, told by its bytes alone: who knows how many shards there are knows where to ask. A
// shard is a HashDict with probe codes, in a record of a file that is mapped whole; several shards share a file,
// several files a set, and a manifest says what lies where:
//
//   words-0.shards   [ zeros to 8 | length:8 | image of shard 0 ][ ... shard 1 ] ...      HashDictMMWrite's records
//   words-1.shards   [ zeros to 8 | length:8 | image of shard 4 ] ...
//   words.manifest   "qxshards 1", then how many shards and keys, then a line a shard:
//                    file, offset, bytes, keys, number of the first key, fingerprint of the bytes
//
// A key's number in the set is its number in the shard, and the keys of all shards before it. Files never change once
// the manifest names them: copy them where they are wanted, map those that are there, replace a set by renaming a new
// manifest over the old one.

#ifndef EXAMPLES_SHARD_H
#define EXAMPLES_SHARD_H

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "dict/qxdict.hpp"

namespace shard {

// The shard of a key: its fingerprint, taken as a fraction of 2^64, of the number of shards. All shards get alike many
// keys; and as the number of shards doubles, shard s becomes 2s and 2s + 1, and no key moves elsewhere.
inline UInt Of(std::string_view key, UInt shards) {
  const FPrint fingerprint = Fingerprint(qx::Bytes(key).data(), static_cast<UInt>(key.size()));
  __extension__ using Product = unsigned __int128;
  return static_cast<UInt>((Product{fingerprint} * shards) >> 64);
}

// A shard in its file.
struct Piece {
  std::string file;     // relative to the manifest
  size_t offset = 0;    // of the record, padding included
  size_t bytes = 0;     // of the record
  Id keys = 0;          //
  ULong first = 0;      // number of the shard's first key in the whole set
  FPrint checksum = 0;  // fingerprint of the record's bytes
};

struct Manifest {
  ULong keys = 0;
  std::vector<Piece> pieces;  // one a shard, in order
};

inline std::string Text(const Manifest& manifest) {
  std::ostringstream out;
  out << "qxshards 1\nshards " << manifest.pieces.size() << "\nkeys " << manifest.keys << "\n";
  for (const Piece& piece : manifest.pieces) {
    out << piece.file << " " << piece.offset << " " << piece.bytes << " " << piece.keys << " " << piece.first << " "
        << piece.checksum << "\n";
  }
  return out.str();
}

// Reads a manifest; throws std::runtime_error for one that does not fit together. What the files hold is another
// matter: see Open.
inline Manifest Parse(std::istream& in, const std::string& name) {
  const auto fail = [&name](const std::string& what) -> void { throw std::runtime_error(name + ": " + what); };
  std::string word;
  ULong version = 0;
  ULong shards = 0;
  Manifest manifest;
  if (!(in >> word >> version) || word != "qxshards" || version != 1) fail("is no manifest of shards");
  if (!(in >> word >> shards) || word != "shards" || shards == 0 || shards > 0xFFFFFFFF)
    fail("tells no number of shards");
  if (!(in >> word >> manifest.keys) || word != "keys") fail("tells no number of keys");
  ULong first = 0;
  for (ULong i = 0; i < shards; i++) {
    Piece piece;
    if (!(in >> piece.file >> piece.offset >> piece.bytes >> piece.keys >> piece.first >> piece.checksum)) {
      fail("ends before shard " + std::to_string(i));
    }
    if (piece.first != first) fail("numbers the keys of shard " + std::to_string(i) + " wrongly");
    if (piece.file.find('/') != std::string::npos) fail("names a file elsewhere: " + piece.file);
    first += piece.keys;
    manifest.pieces.push_back(std::move(piece));
  }
  if (first != manifest.keys) fail("has other keys than its shards");
  return manifest;
}

// A mapped file.
class Mapping {
 public:
  explicit Mapping(const std::string& path) {
    Boolean empty = FALSE;
    base_ = static_cast<UByte*>(FileMapRead(nullptr, path.c_str(), &size_, &empty));
    if (base_ == nullptr && !empty) throw std::system_error(errno, std::generic_category(), "cannot map " + path);
  }
  Mapping(Mapping&& other) noexcept
      : base_(std::exchange(other.base_, nullptr)), size_(std::exchange(other.size_, 0)) {}
  Mapping& operator=(Mapping&&) = delete;
  ~Mapping() {
    if (base_ != nullptr) FileUnmap(base_, size_);
  }

  std::span<const UByte> bytes() const { return {base_, size_}; }

 private:
  UByte* base_ = nullptr;
  size_t size_ = 0;
};

// Opens a shard where it lies in its mapped file. Throws std::runtime_error when it is not what the manifest says; with
// `verify` each byte is looked at, without it the size of the record and the number of its keys.
inline qx::Dict Open(std::span<const UByte> mapping, const Piece& piece, bool verify) {
  const auto fail = [&piece](const char* what) -> void { throw std::runtime_error(piece.file + ": " + what); };
  if (piece.offset > mapping.size() || piece.bytes > mapping.size() - piece.offset)
    fail("is shorter than its manifest says");
  if (piece.bytes > 0xFFFFFFFF) fail("has a shard of 4 GiB, which is better cut");
  if (verify && Fingerprint(mapping.data() + piece.offset, static_cast<UInt>(piece.bytes)) != piece.checksum) {
    fail("has other bytes than its manifest says");
  }
  size_t at = piece.offset;
  std::optional<qx::Dict> dict = qx::Dict::Map(mapping.first(piece.offset + piece.bytes), &at);
  if (!dict || at != piece.offset + piece.bytes || dict->size() != piece.keys)
    fail("has another shard than its manifest says");
  return std::move(*dict);
}

}  // namespace shard

#endif
