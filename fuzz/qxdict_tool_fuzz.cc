// The program qxdict over any bytes: the first byte says which kind of file the others are, or that they are a dump.

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "scratch.h"
#include "tool.h"

namespace {

void Write(const std::string& name, const unsigned char* bytes, size_t size) {
  std::ofstream out(fuzz::Directory() + "/" + name, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(bytes), static_cast<std::streamsize>(size));
}

void Tool(const std::vector<std::string>& arguments) {
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> null(std::fopen("/dev/null", "r+"), std::fclose);
  const int exit = tool::Run(arguments, null.get(), null.get(), null.get());
  if (exit < 0 || exit > 2) std::abort();
}

// Whether a text asks for a table with a capacity of more than six digits: it would get it, and the memory for it.
bool AsksForTooMuch(std::string_view text) {
  constexpr std::string_view kCapacity = "%capacity";
  for (size_t at = text.find(kCapacity); at != std::string_view::npos; at = text.find(kCapacity, at + 1)) {
    size_t digit = text.find_first_of("123456789", at);
    size_t digits = 0;
    while (digit < text.size() && text[digit] >= '0' && text[digit] <= '9') digit++, digits++;
    if (digits > 6) return true;
  }
  return false;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size) {
  static const char* const kSuffixes[] = {".dic", ".ht", ".img", ".idx"};
  if (size == 0) return 0;
  const std::string suffix = kSuffixes[data[0] % 4];
  const bool text = data[0] / 4 % 2 != 0;
  data++;
  size--;
  const std::string file = fuzz::Directory() + "/file" + suffix;
  if (text) {
    if (AsksForTooMuch({reinterpret_cast<const char*>(data), size})) return 0;
    Write("text", data, size);
    Tool({"load", file, fuzz::Directory() + "/text"});
    Tool({"build", fuzz::Directory() + "/file.dic", fuzz::Directory() + "/text", "--probe", "1"});
    return 0;
  }
  // Of a pair the first half is the index.
  const size_t index = suffix == ".idx" ? size / 2 : size;
  Write("file" + suffix, data, index);
  if (suffix == ".idx") Write("file.dat", data + index, size - index);
  for (const char* command : {"info", "check", "stat", "dump"}) {
    Tool({command, file});
    Tool({command, "--any-hash", file});
  }
  Tool({"get", "--json", file, "1", "key"});
  return 0;
}
