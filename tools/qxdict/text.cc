#include "text.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "tool.h"

namespace tool {
namespace {

int Digit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// The byte that two hexadecimal digits give, or -1.
int Byte(std::string_view text) {
  if (text.size() < 2 || Digit(text[0]) < 0 || Digit(text[1]) < 0) return -1;
  return Digit(text[0]) * 16 + Digit(text[1]);
}

void AddHex(std::string* text, unsigned char byte) {
  constexpr char kDigits[] = "0123456789abcdef";
  *text += kDigits[byte >> 4];
  *text += kDigits[byte & 15];
}

}  // namespace

std::string Escaped(std::string_view bytes) {
  std::string text;
  for (const char c : bytes) {
    const unsigned char byte = static_cast<unsigned char>(c);
    if (byte < 0x20 || byte > 0x7E || c == '\\') {
      text += "\\x";
      AddHex(&text, byte);
    } else {
      text += c;
    }
  }
  return text;
}

std::optional<std::string> Unescaped(std::string_view text) {
  std::string bytes;
  for (size_t i = 0; i < text.size(); i++) {
    if (text[i] != '\\') {
      bytes += text[i];
      continue;
    }
    if (i + 1 >= text.size() || text[i + 1] != 'x') return std::nullopt;
    const int byte = Byte(text.substr(i + 2));
    if (byte < 0) return std::nullopt;
    bytes += static_cast<char>(byte);
    i += 3;
  }
  return bytes;
}

std::string Hex(std::string_view bytes) {
  std::string text;
  for (const char c : bytes) AddHex(&text, static_cast<unsigned char>(c));
  return text;
}

std::optional<std::string> Unhex(std::string_view text) {
  if (text.size() % 2 != 0) return std::nullopt;
  std::string bytes;
  for (size_t i = 0; i < text.size(); i += 2) {
    const int byte = Byte(text.substr(i));
    if (byte < 0) return std::nullopt;
    bytes += static_cast<char>(byte);
  }
  return bytes;
}

std::optional<unsigned long> Number(std::string_view text, unsigned long most) {
  unsigned long number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size() || number > most) return std::nullopt;
  return number;
}

bool ReadLine(std::FILE* in, const std::string& name, std::string* line) {
  line->clear();
  char* text = nullptr;
  size_t room = 0;
  const ssize_t length = getline(&text, &room, in);
  const std::unique_ptr<char, void (*)(void*)> owner(text, std::free);
  if (length < 0) {
    if (std::ferror(in)) throw Trouble{"cannot read " + name + ": " + std::strerror(errno)};
    return false;
  }
  line->assign(text, static_cast<size_t>(length));
  if (line->back() == '\n') line->pop_back();
  return true;
}

void ReadDump(std::FILE* in, const std::string& kind, const std::map<std::string, unsigned long>& known,
              const std::function<void(const std::map<std::string, unsigned long>& settings)>& start,
              const std::function<void(const std::string& line, const std::string& where)>& entry) {
  std::string line;
  size_t number = 1;
  const auto where = [&number] { return "line " + std::to_string(number); };
  if (!ReadLine(in, "the dump", &line) || line != "%qxdict " + kind + " 1") {
    throw Trouble{where() + ": a dump of this kind starts with %qxdict " + kind + " 1"};
  }
  std::map<std::string, unsigned long> settings;
  bool started = false;
  while (number++, ReadLine(in, "the dump", &line)) {
    if (!started && line.starts_with('%')) {
      const size_t space = line.find(' ');
      const auto setting = known.find(line.substr(1, space == std::string::npos ? space : space - 1));
      const std::optional<unsigned long> value =
          setting == known.end() ? std::nullopt : Number(std::string_view(line).substr(space + 1), setting->second);
      if (!value) throw Trouble{where() + ": unknown setting: " + line};
      settings[setting->first] = *value;
      continue;
    }
    if (!started) start(settings);
    started = true;
    entry(line, where());
  }
  if (!started) start(settings);
}

void TakePlace(const std::string& beside, const std::string& path) {
  const size_t slash = path.rfind('/');
  const std::string directory = slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
  if (std::rename(beside.c_str(), path.c_str()) != 0) {
    const int error = errno;
    unlink(beside.c_str());
    throw Trouble{"cannot write " + path + ": " + std::strerror(error)};
  }
  const int fd = open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return;  // a directory that may be written and not read: the rename itself has happened
  fsync(fd);
  close(fd);
}

}  // namespace tool
