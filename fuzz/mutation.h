// Mutation that knows what is in an input: beside the bytes that libFuzzer changes blindly, whole images that a writer
// has made, and single fields of them with another number.
#ifndef FUZZ_MUTATION_H
#define FUZZ_MUTATION_H

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <random>
#include <string>
#include <vector>

extern "C" size_t LLVMFuzzerMutate(uint8_t* data, size_t size, size_t max_size);

namespace fuzz {

class Chance {
 public:
  explicit Chance(unsigned seed) : random_(seed) {}
  size_t Below(size_t n) { return n == 0 ? 0 : random_() % n; }
  char Byte() { return static_cast<char>(random_()); }

 private:
  std::minstd_rand random_;
};

// A number in an image: where it is, counted from the start of the input, and how wide.
struct Field {
  size_t at;
  size_t width;
};

// Puts another number into a field: one that is odd by itself, or for what was there.
inline void Change(std::string* bytes, Field field, Chance* chance) {
  static constexpr uint64_t kOdd[] = {0,      1,          2,          3,          4,          5,          7,
                                      8,      16,         0x7F,       0x80,       0xFF,       0x100,      0x7FFF,
                                      0xFFFF, 0x55555555, 0x7FFFFFFF, 0x80000000, 0xFFFFFFF0, 0xFFFFFFF8, 0xFFFFFFFE,
                                      ~0u,    1ul << 32,  1ul << 63,  ~0ul - 47,  ~0ul};
  if (field.at >= bytes->size()) return;
  const size_t width = std::min(field.width, bytes->size() - field.at);
  uint64_t number = 0;
  std::memcpy(&number, bytes->data() + field.at, width);
  switch (chance->Below(6)) {
    case 0:
      number++;
      break;
    case 1:
      number--;
      break;
    case 2:
      number = number * 2 + chance->Below(2);
      break;
    case 3:
      number ^= uint64_t{1} << chance->Below(8 * width);
      break;
    default:
      number = kOdd[chance->Below(std::size(kOdd))];
  }
  std::memcpy(bytes->data() + field.at, &number, width);
}

inline uint32_t Number4(const std::string& bytes, size_t at) {
  uint32_t number = 0;
  if (at + 4 <= bytes.size()) std::memcpy(&number, bytes.data() + at, 4);
  return number;
}

inline std::string Bytes4(uint64_t number) {
  const auto word = static_cast<uint32_t>(number);
  return {reinterpret_cast<const char*>(&word), 4};
}

inline std::string RandomKey(Chance* chance) {
  std::string key(chance->Below(chance->Below(20) == 0 ? 200 : 6), '\0');
  for (char& c : key) c = static_cast<char>('a' + static_cast<int>(chance->Below(3)));
  return key;
}

// Mutates by an input's own kind: `head(input)` tells how many bytes lie in front of the image, `fresh(chance)` makes
// an image that is sound, `fields(input, head)` lists what is worth a change, one of them at random among the many.
template <typename Head, typename Fresh, typename Fields>
size_t Mutate(uint8_t* data, size_t size, size_t max_size, unsigned seed, Head head, Fresh fresh, Fields fields) {
  Chance chance(seed);
  const size_t choice = chance.Below(8);
  if (choice < 3) return LLVMFuzzerMutate(data, size, max_size);
  std::string input(reinterpret_cast<const char*>(data), size);
  const size_t in_front = std::min(head(input), input.size());
  if (choice < 5) {
    input = input.substr(0, in_front) + fresh(&chance);
  } else if (choice == 5) {
    // What is to be done with the image, and the image left alone.
    std::string front = input.substr(0, in_front);
    const size_t length = front.size();
    front.resize(length + 64);
    front.resize(LLVMFuzzerMutate(reinterpret_cast<uint8_t*>(front.data()), length, front.size()));
    front.resize(length);
    input.replace(0, length, front);
  } else {
    for (size_t changes = 1 + chance.Below(3); changes > 0; changes--) {
      const std::vector<Field> known = fields(input, in_front, &chance);
      if (!known.empty()) Change(&input, known[chance.Below(known.size())], &chance);
    }
  }
  if (input.size() > max_size) input.resize(max_size);
  std::memcpy(data, input.data(), input.size());
  return input.size();
}

}  // namespace fuzz

#endif
