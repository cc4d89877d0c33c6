// An AVL dictionary written down as plainly as it can be said, one mirror image after the other and no step saved: what
// the node array of the real ones has to look like, word for word, after every operation.
#ifndef TESTS_SUPPORT_AVL_REFERENCE_H
#define TESTS_SUPPORT_AVL_REFERENCE_H

#include <cstdint>
#include <cstdlib>
#include <vector>

namespace support {

template <typename Integer>
class AvlReference {
 public:
  using Key = Integer;
  using Value = Integer;

  struct Node {
    uint32_t right, left;
    Integer key, value;
  };

  std::vector<Node> nodes;
  uint32_t capacity, size, free, list;

  explicit AvlReference(uint32_t wanted) {
    capacity = wanted < 1024 ? 1024 : wanted;
    nodes.resize(capacity);
    Clear();
  }

  void Clear() {
    free = 2;
    size = 0;
    list = 0;
    nodes[0].left = nodes[0].right = 0;
    nodes[1].left = nodes[1].right = 0;
    nodes[1].key = 0;
  }

  Integer Find(Integer v, Integer n) {
    nodes[0].key = v;
    uint32_t x = R(1);
    while (nodes[x].key != v) {
      if (v < nodes[x].key) {
        x = L(x);
      } else {
        x = R(x);
      }
    }
    return x == 0 ? n : nodes[x].value;
  }

  Integer Insert(Integer v, Integer d, Integer n) {
    std::vector<uint32_t> stack;
    stack.push_back(1);
    stack.push_back(R(1));
    while (stack.back() != 0) {
      const uint32_t x = stack.back();
      if (nodes[x].key > v) {
        stack.push_back(L(x));
      } else if (nodes[x].key < v) {
        stack.push_back(R(x));
      } else {
        n = nodes[x].value;
        nodes[x].value = d;
        return n;
      }
    }
    const uint32_t added = NodeNew(v, d);
    const uint32_t parent = stack[stack.size() - 2];
    if (v >= nodes[parent].key) {
      SetR(parent, added);
    } else {
      SetL(parent, added);
    }
    stack.back() = added;
    bool balance = true;
    while (balance && stack.size() >= 3) {
      const uint32_t child = stack.back();
      stack.pop_back();
      const uint32_t x = stack.back();
      const uint32_t p = stack[stack.size() - 2];
      if (nodes[child].key >= nodes[x].key) {
        balance = RightGrown(p, x);
      } else {
        balance = LeftGrown(p, x);
      }
    }
    return n;
  }

  Integer Remove(Integer v, Integer n) {
    nodes[0].key = v;
    std::vector<uint32_t> stack;
    stack.push_back(1);
    uint32_t x = R(1);
    while (nodes[x].key != v) {
      stack.push_back(x);
      x = v < nodes[x].key ? L(x) : R(x);
    }
    if (x == 0) return n;
    const uint32_t parent = stack.back();
    stack.push_back(x);
    const Integer result = nodes[x].value;
    bool balance = true;
    bool release = false;
    if (L(x) != 0) {
      std::vector<uint32_t> path;
      path.push_back(L(x));
      while (R(path.back()) != 0) path.push_back(R(path.back()));
      const uint32_t h = path.back();
      nodes[x].key = nodes[h].key;
      nodes[x].value = nodes[h].value;
      const bool deeper = path.size() > 1;
      if (!deeper) {
        SetL(x, L(h));
      } else {
        SetR(path[path.size() - 2], L(h));
      }
      NodeDelete(h);
      if (deeper) {
        size_t i = path.size() - 2;
        while (balance && i > 0) {
          balance = RightShrunk(path[i - 1], path[i]);
          i--;
        }
        if (balance) balance = RightShrunk(x, L(x));
      }
      if (balance) balance = LeftShrunk(parent, x);
    } else if (R(x) != 0) {
      std::vector<uint32_t> path;
      path.push_back(R(x));
      while (L(path.back()) != 0) path.push_back(L(path.back()));
      const uint32_t m = path.back();
      nodes[x].key = nodes[m].key;
      nodes[x].value = nodes[m].value;
      const bool deeper = path.size() > 1;
      if (!deeper) {
        SetR(x, R(m));
      } else {
        SetL(path[path.size() - 2], R(m));
      }
      NodeDelete(m);
      if (deeper) {
        size_t i = path.size() - 2;
        while (balance && i > 0) {
          balance = LeftShrunk(path[i - 1], path[i]);
          i--;
        }
        if (balance) balance = LeftShrunk(x, R(x));
      }
      if (balance) balance = RightShrunk(parent, x);
    } else {
      if (nodes[x].key >= nodes[parent].key) {
        SetR(parent, 0);
      } else {
        SetL(parent, 0);
      }
      release = true;
    }
    // stack: header ... parent, x. The header is never rebalanced.
    size_t at = stack.size() - 1;
    while (balance && at >= 2) {
      const uint32_t child = stack[at];
      const uint32_t y = stack[at - 1];
      const uint32_t q = stack[at - 2];
      if (nodes[child].key < nodes[y].key) {
        balance = LeftShrunk(q, y);
      } else {
        balance = RightShrunk(q, y);
      }
      at--;
    }
    if (release) NodeDelete(x);
    return result;
  }

 private:
  static constexpr uint32_t kTop = 0x80000000u;
  static constexpr uint32_t kRest = 0x7FFFFFFFu;
  enum Skew { kSkewRight, kSkewNone, kSkewLeft };

  uint32_t L(uint32_t x) const { return nodes[x].left & kRest; }
  uint32_t R(uint32_t x) const { return nodes[x].right & kRest; }
  void SetL(uint32_t x, uint32_t c) { nodes[x].left = (nodes[x].left & kTop) | c; }
  void SetR(uint32_t x, uint32_t c) { nodes[x].right = (nodes[x].right & kTop) | c; }

  Skew Get(uint32_t x) const {
    if ((nodes[x].left & kTop) != 0) {
      if ((nodes[x].right & kTop) != 0) std::abort();
      return kSkewLeft;
    }
    return (nodes[x].right & kTop) != 0 ? kSkewRight : kSkewNone;
  }
  void Set(uint32_t x, Skew skew) {
    nodes[x].left &= kRest;
    nodes[x].right &= kRest;
    if (skew == kSkewLeft) nodes[x].left |= kTop;
    if (skew == kSkewRight) nodes[x].right |= kTop;
  }

  uint32_t NodeNew(Integer v, Integer d) {
    size++;
    uint32_t x;
    if (list != 0) {
      x = list;
      list = R(x);
    } else {
      if (free == capacity) {
        capacity *= 2;
        nodes.resize(capacity);
      }
      x = free++;
    }
    nodes[x].left = nodes[x].right = 0;
    nodes[x].key = v;
    nodes[x].value = d;
    return x;
  }

  void NodeDelete(uint32_t x) {
    size--;
    SetR(x, list);
    list = x;
  }

  void RotRight(uint32_t p, uint32_t x) {
    const uint32_t l = L(x);
    SetL(x, R(l));
    SetR(l, x);
    if (L(p) == x) {
      SetL(p, l);
    } else {
      SetR(p, l);
    }
  }
  void RotLeft(uint32_t p, uint32_t x) {
    const uint32_t r = R(x);
    SetR(x, L(r));
    SetL(r, x);
    if (L(p) == x) {
      SetL(p, r);
    } else {
      SetR(p, r);
    }
  }

  bool LeftGrown(uint32_t p, uint32_t x) {
    if (Get(x) == kSkewRight) {
      Set(x, kSkewNone);
      return false;
    }
    if (Get(x) == kSkewNone) {
      Set(x, kSkewLeft);
      return true;
    }
    const uint32_t l = L(x);
    if (Get(l) == kSkewLeft) {
      Set(x, kSkewNone);
      Set(l, kSkewNone);
      RotRight(p, x);
      return false;
    }
    LeftDouble(p, x, l);
    return false;
  }
  bool RightGrown(uint32_t p, uint32_t x) {
    if (Get(x) == kSkewLeft) {
      Set(x, kSkewNone);
      return false;
    }
    if (Get(x) == kSkewNone) {
      Set(x, kSkewRight);
      return true;
    }
    const uint32_t r = R(x);
    if (Get(r) == kSkewRight) {
      Set(x, kSkewNone);
      Set(r, kSkewNone);
      RotLeft(p, x);
      return false;
    }
    RightDouble(p, x, r);
    return false;
  }
  bool RightShrunk(uint32_t p, uint32_t x) {
    if (Get(x) == kSkewRight) {
      Set(x, kSkewNone);
      return true;
    }
    if (Get(x) == kSkewNone) {
      Set(x, kSkewLeft);
      return false;
    }
    const uint32_t l = L(x);
    if (Get(l) == kSkewLeft) {
      Set(x, kSkewNone);
      Set(l, kSkewNone);
      RotRight(p, x);
      return true;
    }
    if (Get(l) == kSkewNone) {
      Set(x, kSkewLeft);
      Set(l, kSkewRight);
      RotRight(p, x);
      return false;
    }
    LeftDouble(p, x, l);
    return true;
  }
  bool LeftShrunk(uint32_t p, uint32_t x) {
    if (Get(x) == kSkewLeft) {
      Set(x, kSkewNone);
      return true;
    }
    if (Get(x) == kSkewNone) {
      Set(x, kSkewRight);
      return false;
    }
    const uint32_t r = R(x);
    if (Get(r) == kSkewRight) {
      Set(x, kSkewNone);
      Set(r, kSkewNone);
      RotLeft(p, x);
      return true;
    }
    if (Get(r) == kSkewNone) {
      Set(x, kSkewRight);
      Set(r, kSkewLeft);
      RotLeft(p, x);
      return false;
    }
    RightDouble(p, x, r);
    return true;
  }

  void LeftDouble(uint32_t p, uint32_t x, uint32_t l) {
    const uint32_t g = R(l);
    if (Get(g) == kSkewLeft) {
      Set(x, kSkewRight);
      Set(l, kSkewNone);
    } else if (Get(g) == kSkewRight) {
      Set(x, kSkewNone);
      Set(l, kSkewLeft);
    } else {
      Set(x, kSkewNone);
      Set(l, kSkewNone);
    }
    Set(g, kSkewNone);
    RotLeft(x, l);
    RotRight(p, x);
  }
  void RightDouble(uint32_t p, uint32_t x, uint32_t r) {
    const uint32_t g = L(r);
    if (Get(g) == kSkewLeft) {
      Set(x, kSkewNone);
      Set(r, kSkewRight);
    } else if (Get(g) == kSkewRight) {
      Set(x, kSkewLeft);
      Set(r, kSkewNone);
    } else {
      Set(x, kSkewNone);
      Set(r, kSkewNone);
    }
    Set(g, kSkewNone);
    RotRight(x, r);
    RotLeft(p, x);
  }
};

}  // namespace support

#endif
