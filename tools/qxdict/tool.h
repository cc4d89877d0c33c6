// qxdict: looks into the library's files, checks them, and makes them. What each file of it does:
//
//   tool.cc        the command line: which command, which kind of file
//   dictionary.cc  .dic files            tables.cc   table files and memory images      attributes.cc  .idx/.dat pairs
//   build.cc       a .dic file from a list of keys
//   text.cc        the text form of bytes, and of dumps         report.cc   what is told, for people and as JSON
//
// Whatever a file holds, the tool ends with one of its exit codes: what the library would end the process for is looked
// at before the library is asked.

#ifndef TOOLS_QXDICT_TOOL_H
#define TOOLS_QXDICT_TOOL_H

#include <cstdio>
#include <string>
#include <vector>

namespace tool {

// How a command ended, and the program's exit status.
enum Exit {
  kYes = 0,      // done; what was asked is so
  kNo = 1,       // done; it is not so: a key is absent, a check found damage, keys are equal
  kTrouble = 2,  // not done: misuse, a file that cannot be read or written, one that makes no sense
};

// Something that ends a command with kTrouble.
struct Trouble {
  std::string text;
};

struct Options {
  bool json = false;
  bool default_hash = true;  // the keys of a table are where HashBytes puts them
  unsigned probe = 0;        // build: bytes in a probe code
  bool values = false;       // build: each line is a key, a tab and a value
};

// What can be done with one kind of file; null: nothing of the sort.
struct Commands {
  const char* kind;      // as --kind names it
  const char* suffixes;  // of files that are of this kind when nobody says otherwise, each in spaces
  Exit (*info)(const std::string& path, const Options& options, std::FILE* out);
  Exit (*check)(const std::string& path, const Options& options, std::FILE* out);
  Exit (*stat)(const std::string& path, const Options& options, std::FILE* out);
  Exit (*get)(const std::string& path, const std::vector<std::string>& keys, const Options& options, std::FILE* out);
  Exit (*dump)(const std::string& path, const Options& options, std::FILE* out);
  Exit (*load)(const std::string& path, std::FILE* in);
};

extern const Commands kDictionary;
extern const Commands kTable;
extern const Commands kImage;
extern const Commands kAttributes;

// Builds a dictionary file from a list of keys, one a line. Keys that are equal are named on `err`.
Exit Build(const std::string& path, const std::string& list, const Options& options, std::FILE* err);

// The command line without the program's name. Reads a dump to load from `in`.
int Run(const std::vector<std::string>& arguments, std::FILE* in, std::FILE* out, std::FILE* err);

}  // namespace tool

#endif
