// A plain model of the perfect-hash dictionary's construction: linked lists of edge slots, a status for every edge and
// vertex, one bit at a time. Slow, and close to the definition; the library must give the same bytes.
#ifndef TESTS_SUPPORT_HASHDICT_MODEL_H
#define TESTS_SUPPORT_HASHDICT_MODEL_H

#include <array>
#include <cstdlib>
#include <string>
#include <vector>

#include "support/hashdict_keys.h"

namespace support {

using ModelTriple = std::array<Id, 3>;

// The order in which the edges of a graph are removed. Edges are numbered from 1, vertices too.
class ModelGraph {
 public:
  ModelGraph(const std::vector<ModelTriple>& edges, Id vertices)
      : edges_(edges), first_(vertices + 1), removed_(edges.size() + 1) {
    offset_ = static_cast<Id>(edges.size()) + 1;
    next_.resize(size_t{offset_} * 3);
    for (Id e = 1; e < offset_; e++) {
      for (Id k = 0; k < 3; k++) {
        const Id slot = e + k * offset_;
        next_[slot] = first_[edges_[e - 1][k]];
        first_[edges_[e - 1][k]] = slot;
      }
    }
    removed_[0] = true;
    for (Id v = 1; v <= vertices; v++) {
      const Id e = Singleton(v);
      if (!removed_[e]) DeleteAll(v, e);
    }
  }

  const std::vector<Id>& order() const { return order_; }
  size_t deepest() const { return deepest_; }

 private:
  struct Entry {
    Id edge, vertex, status;
  };

  Id Singleton(Id v) const {
    const Id slot = first_[v];
    return slot != 0 && next_[slot] == 0 ? slot % offset_ : 0;
  }

  void Unlink(Id v, Id e) {
    for (Id* link = &first_[v]; *link != 0; link = &next_[*link]) {
      if (*link % offset_ == e) {
        *link = next_[*link];
        return;
      }
    }
  }

  void DeleteAll(Id v, Id e) {
    std::vector<Entry> stack{{e, v, 0}};
    while (!stack.empty()) {
      const Entry entry = stack.back();
      stack.pop_back();
      if (entry.status == 0) {
        removed_[entry.edge] = true;
        order_.push_back(entry.edge);
        for (const Id u : edges_[entry.edge - 1]) Unlink(u, entry.edge);
      }
      for (Id k = entry.status; k < 3; k++) {
        const Id u = edges_[entry.edge - 1][k];
        if (u == entry.vertex) continue;
        const Id other = Singleton(u);
        if (other == 0 || removed_[other]) continue;
        if (k < 2) stack.push_back({entry.edge, entry.vertex, k + 1});
        stack.push_back({other, u, 0});
        break;
      }
      if (stack.size() > deepest_) deepest_ = stack.size();
    }
  }

  std::vector<ModelTriple> edges_;
  std::vector<Id> first_, next_;
  std::vector<bool> removed_;
  std::vector<Id> order_;
  Id offset_;
  size_t deepest_ = 0;
};

// The three vertices of a key, sum by sum and byte by byte.
inline ModelTriple ModelHash(const std::string& key, const std::vector<int>& rank, const std::vector<Id>& coef,
                             Id nchars, Id m) {
  Id a = 0, b = 0, c = 0;
  for (size_t i = 0; i < key.size(); i++) {
    const size_t at = (i * nchars + static_cast<size_t>(rank[static_cast<UByte>(key[i])])) * 3;
    a += coef[at];
    if (a >= m) a -= m;
    b += coef[at + 1];
    if (b >= m - 1) b -= m - 1;
    c += coef[at + 2];
    if (c >= m - 2) c -= m - 2;
    if (c >= m - 2) c -= m - 2;
  }
  const Id t = a + 1 + b;
  const Id u = a + 1 + c + (b <= c ? 1 : 0);
  return {a + 1, (t >= m ? t - m : t) + 1, (u >= m ? u - m : u) + 1};
}

// Packs entries of some width, bit by bit, into whole 64-bit words.
inline std::string ModelPack(const std::vector<Id>& values, UInt width) {
  std::string bytes((values.size() * width + 63) / 64 * 8, '\0');
  for (size_t bit = 0; bit < values.size() * width; bit++) {
    if ((values[bit / width] >> (bit % width) & 1) == 0) continue;
    bytes[bit / 8] = static_cast<char>(bytes[bit / 8] | 1 << bit % 8);
  }
  return bytes;
}

inline UInt ModelWidth(ULong largest) {
  UInt width = 1;
  while (width < 64 && largest >> width != 0) width++;
  return width;
}

struct ModelImage {
  std::string image;
  int attempts = 0;
};

// The image for a set of keys, with values of nbits bits; 0: each key's own number.
inline ModelImage ModelBuild(const KeySet& set, UByte nbits, UByte probe) {
  const auto n = static_cast<Id>(set.keys.size());
  const Id m = n + n / 4 + 5;
  const ULong largest = nbits == 0 ? n : (ULong{1} << nbits) - 1;

  std::vector<int> rank(256, -1);
  size_t maxlen = 0;
  for (const std::string& key : set.keys) {
    for (const char byte : key) rank[static_cast<UByte>(byte)] = 1;
    if (key.size() > maxlen) maxlen = key.size();
  }
  int nchars = 0;
  for (int& r : rank) {
    if (r == 1) r = nchars++;
  }

  ModelImage result;
  std::vector<Id> coef(maxlen * static_cast<size_t>(nchars) * 3), order;
  std::vector<ModelTriple> edges(n);
  srandom(0);
  do {
    for (Id& c : coef) c = static_cast<Id>(random() % m);
    for (Id i = 0; i < n; i++) edges[i] = ModelHash(set.keys[i], rank, coef, static_cast<Id>(nchars), m);
    order = ModelGraph(edges, m).order();
    result.attempts++;
  } while (order.size() != n);

  std::vector<Id> fun(m + 1);
  std::vector<bool> assigned(m + 1);
  for (; !order.empty(); order.pop_back()) {
    const Id idx = order.back() - 1;
    Id value = nbits == 0 ? idx : set.values[idx];
    Id chosen = 0;
    for (const Id v : edges[idx]) {
      if (assigned[v]) {
        value ^= fun[v];
      } else {
        assigned[v] = true;
        chosen = v;
      }
    }
    fun[chosen] = value;
  }

  std::string code;
  if (probe > 0) {
    for (const std::string& key : set.keys) {
      ULong p = 0;
      for (const char byte : key) p = p * 257 + static_cast<UByte>(byte);
      for (UByte j = 0; j < probe; j++) code += static_cast<char>(p >> 8 * j);
    }
    code.resize((size_t{probe} * n * 8 * probe + 63) / 64 * 8);
  }
  const std::string values = ModelPack(fun, ModelWidth(largest));
  const size_t coef_size = (coef.size() * 4 + 7) / 8 * 8;

  std::string& image = result.image;
  const auto put = [&image](ULong number, size_t width) {
    for (size_t j = 0; j < width; j++, number >>= 8) image += static_cast<char>(number);
  };
  put(n, 4);
  put(m, 4);
  put(maxlen, 2);
  put(ModelWidth(largest), 2);
  put(static_cast<ULong>(nchars), 2);
  put(probe, 2);
  put(512, 8);
  put(coef_size, 8);
  put(values.size(), 8);
  put(code.size(), 8);
  for (const int r : rank) put(static_cast<ULong>(r), 2);
  for (const Id c : coef) put(c, 4);
  image.resize(48 + 512 + coef_size);
  image += values + code;
  return result;
}

}  // namespace support

#endif
