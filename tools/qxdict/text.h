// Bytes as text, and dumps.
//
// A dump is lines of text: first "%qxdict KIND 1", then settings, "%NAME NUMBER", then one line an entry. A byte that
// is no printable ASCII, and the backslash, is written as \xNN; a line's key ends at a tab; a value is pairs of
// hexadecimal digits. The same contents give the same dump, and a dump that was loaded gives itself again.

#ifndef TOOLS_QXDICT_TEXT_H
#define TOOLS_QXDICT_TEXT_H

#include <cstdio>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace tool {

std::string Escaped(std::string_view bytes);
std::optional<std::string> Unescaped(std::string_view text);

std::string Hex(std::string_view bytes);
std::optional<std::string> Unhex(std::string_view text);

// A decimal number up to `most`.
std::optional<unsigned long> Number(std::string_view text, unsigned long most);

// Reads one line without its end; false at the end of the input. Throws Trouble when it cannot be read.
bool ReadLine(std::FILE* in, const std::string& name, std::string* line);

// Reads a dump of a kind: `settings` gets the numbers at its head, of which each must be among `known` with its
// greatest value. Then `entry` gets line after line, each with what to say where it stands. Throws Trouble.
void ReadDump(std::FILE* in, const std::string& kind, const std::map<std::string, unsigned long>& known,
              const std::function<void(const std::map<std::string, unsigned long>& settings)>& start,
              const std::function<void(const std::string& line, const std::string& where)>& entry);

// Puts a file that was written beside in its place, for good: renames, and forces the directory's names to stable
// storage. Throws Trouble, and removes the file, when that fails.
void TakePlace(const std::string& beside, const std::string& path);

}  // namespace tool

#endif
