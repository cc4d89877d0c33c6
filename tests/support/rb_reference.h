// The red-black dictionary written down as plainly as it can be said, one mirror image after the other and no step
// saved: what the node array of the real one has to look like, word for word, after every operation.
#ifndef TESTS_SUPPORT_RB_REFERENCE_H
#define TESTS_SUPPORT_RB_REFERENCE_H

#include <cstdint>
#include <vector>

namespace support {

class RbReference {
 public:
  using Key = uint32_t;
  using Value = uint32_t;

  struct Node {
    uint32_t right, left, key, value;
  };

  std::vector<Node> nodes;
  uint32_t capacity, size, free, list;

  explicit RbReference(uint32_t wanted) {
    capacity = wanted < 1024 ? 1024 : wanted;
    nodes.resize(capacity);
    Clear();
  }

  void Clear() {
    free = 2;
    size = 0;
    list = 0;
    nodes[0].left = nodes[0].right = 0;
    nodes[1].key = 0;
    nodes[1].right = 0;
  }

  uint32_t Find(uint32_t v, uint32_t n) {
    nodes[0].key = v;
    uint32_t x = nodes[1].right;
    while (nodes[x].key != v) x = v < nodes[x].key ? L(x) : R(x);
    return x == 0 ? n : nodes[x].value;
  }

  uint32_t Insert(uint32_t v, uint32_t d, uint32_t n) {
    uint32_t x = 1;
    uint32_t p = 1;
    uint32_t g = 1;
    while (true) {
      if (nodes[x].key == v) {
        const uint32_t old = nodes[x].value;
        nodes[x].value = d;
        return old;
      }
      uint32_t c = v < nodes[x].key ? L(x) : R(x);
      if (Red(L(c)) && Red(R(c))) c = Split(v, g, p, x, c);
      if (c == 0) break;
      g = p;
      p = x;
      x = c;
    }
    const uint32_t added = NodeNew();
    nodes[added].key = v;
    nodes[added].value = d;
    nodes[added].right = 0;
    SetL(added, 0);  // the colour that the slot had stays until the split
    if (v >= nodes[x].key) {
      nodes[x].right = added;
    } else {
      SetL(x, added);
    }
    Split(v, g, p, x, added);
    return n;
  }

  uint32_t Remove(uint32_t v, uint32_t n) {
    nodes[0].key = v;
    std::vector<uint32_t> stack = {1};
    uint32_t z = nodes[1].right;
    while (nodes[z].key != v) {
      stack.push_back(z);
      z = v < nodes[z].key ? L(z) : R(z);
    }
    if (z == 0) return n;
    stack.push_back(z);
    const uint32_t result = nodes[z].value;
    if (L(z) != 0 && R(z) != 0) {
      uint32_t m = R(z);
      stack.push_back(m);
      while (L(m) != 0) {
        m = L(m);
        stack.push_back(m);
      }
      const uint32_t parent = stack[stack.size() - 2];
      if (m != R(z)) {
        SetL(parent, R(m));
      } else {
        nodes[z].right = R(m);
      }
      stack.back() = R(m);
      nodes[z].key = nodes[m].key;
      nodes[z].value = nodes[m].value;
      if (!Red(m)) Correct(stack);
      Release(m);
    } else {
      const uint32_t y = L(z) != 0 ? L(z) : R(z);
      const uint32_t parent = stack[stack.size() - 2];
      if (parent == 1) {
        nodes[1].right = y;
      } else if (L(parent) == z) {
        SetL(parent, y);
      } else {
        nodes[parent].right = y;
      }
      if (!Red(z)) {
        stack.back() = y;
        Correct(stack);
      }
      Release(z);
    }
    return result;
  }

 private:
  static constexpr uint32_t kTop = 0x80000000u;
  static constexpr uint32_t kRest = 0x7FFFFFFFu;

  uint32_t L(uint32_t x) const { return nodes[x].left & kRest; }
  uint32_t R(uint32_t x) const { return nodes[x].right; }
  void SetL(uint32_t x, uint32_t c) { nodes[x].left = (nodes[x].left & kTop) | c; }
  bool Red(uint32_t x) const { return (nodes[x].left & kTop) != 0; }
  void MakeRed(uint32_t x) { nodes[x].left |= kTop; }
  void MakeBlack(uint32_t x) { nodes[x].left &= kRest; }

  uint32_t NodeNew() {
    size++;
    if (list != 0) {
      const uint32_t x = list;
      list = nodes[x].right;
      return x;
    }
    if (free == capacity) {
      capacity *= 2;
      nodes.resize(capacity);
    }
    return free++;
  }

  void Release(uint32_t x) {
    size--;
    nodes[x].right = list;
    list = x;
  }

  uint32_t Split(uint32_t v, uint32_t gg, uint32_t g, uint32_t p, uint32_t x) {
    MakeRed(x);
    MakeBlack(L(x));
    MakeBlack(R(x));
    if (Red(p)) {
      MakeRed(g);
      if ((v < nodes[g].key) != (v < nodes[p].key)) Rotate(v, g);
      x = Rotate(v, gg);
      MakeBlack(x);
    }
    MakeBlack(nodes[1].right);
    return x;
  }

  uint32_t Rotate(uint32_t v, uint32_t y) {
    const uint32_t c = nodes[y].key > v ? L(y) : R(y);
    uint32_t gc;
    if (v >= nodes[c].key) {
      gc = R(c);
      nodes[c].right = L(gc);
      SetL(gc, c);
    } else {
      gc = L(c);
      SetL(c, R(gc));
      nodes[gc].right = c;
    }
    if (v >= nodes[y].key) {
      nodes[y].right = gc;
    } else {
      SetL(y, gc);
    }
    return gc;
  }

  void RotateLeft(uint32_t p, uint32_t x) {
    const uint32_t y = R(x);
    nodes[x].right = L(y);
    if (L(p) == x) {
      SetL(p, y);
    } else {
      nodes[p].right = y;
    }
    SetL(y, x);
  }
  void RotateRight(uint32_t p, uint32_t x) {
    const uint32_t y = L(x);
    SetL(x, R(y));
    if (L(p) == x) {
      SetL(p, y);
    } else {
      nodes[p].right = y;
    }
    nodes[y].right = x;
  }

  void Correct(std::vector<uint32_t> stack) {
    while (true) {
      const uint32_t x = stack[stack.size() - 1];
      const uint32_t p = stack[stack.size() - 2];
      uint32_t g = stack.size() >= 3 ? stack[stack.size() - 3] : 0;
      if (Red(x)) {
        MakeBlack(x);
        return;
      }
      if (L(p) == 0 && R(p) == 0) {
        stack.pop_back();
        if (stack.size() < 2) {
          MakeBlack(1);
          return;
        }
        continue;
      }
      if (x == L(p)) {
        uint32_t w = R(p);
        if (Red(w)) {
          MakeBlack(w);
          MakeRed(p);
          RotateLeft(g, p);
          stack.insert(stack.end() - 2, w);
          g = w;
          w = R(p);
        }
        if (!Red(L(w)) && !Red(R(w))) {
          if (w != 0) MakeRed(w);
          if (Red(p)) {
            MakeBlack(p);
            return;
          }
          stack.pop_back();
          if (stack.size() < 2 || stack.back() == 1) {
            MakeBlack(1);
            return;
          }
          continue;
        }
        if (Red(L(w)) && !Red(R(w))) {
          MakeBlack(L(w));
          MakeRed(w);
          RotateRight(p, w);
          w = R(p);
        }
        if (Red(p)) {
          MakeRed(w);
        } else {
          MakeBlack(w);
        }
        MakeBlack(p);
        MakeBlack(R(w));
        RotateLeft(g, p);
      } else {
        uint32_t w = L(p);
        if (Red(w)) {
          MakeBlack(w);
          MakeRed(p);
          RotateRight(g, p);
          stack.insert(stack.end() - 2, w);
          g = w;
          w = L(p);
        }
        if (!Red(L(w)) && !Red(R(w))) {
          if (w != 0) MakeRed(w);
          if (Red(p)) {
            MakeBlack(p);
            return;
          }
          stack.pop_back();
          if (stack.size() < 2 || stack.back() == 1) {
            MakeBlack(1);
            return;
          }
          continue;
        }
        if (Red(R(w)) && !Red(L(w))) {
          MakeBlack(R(w));
          MakeRed(w);
          RotateLeft(p, w);
          w = L(p);
        }
        if (Red(p)) {
          MakeRed(w);
        } else {
          MakeBlack(w);
        }
        MakeBlack(p);
        MakeBlack(L(w));
        RotateRight(g, p);
      }
      MakeBlack(1);
      return;
    }
  }
};

}  // namespace support

#endif
