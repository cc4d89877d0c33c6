// The command line.

#include "tool.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <exception>
#include <memory>
#include <optional>

#include "dict/version.h"
#include "qxlib/misc.h"
#include "text.h"

namespace tool {
namespace {

constexpr char kUsage[] =
    "usage: qxdict info FILE                 what the file is\n"
    "       qxdict check FILE                whether it is sound\n"
    "       qxdict stat FILE                 how full, how large, how far to search\n"
    "       qxdict get FILE KEY...           what is stored under the keys\n"
    "       qxdict dump FILE                 the contents as text (no .dic: its keys are not in it)\n"
    "       qxdict load FILE [TEXT]          a file from a dump, or from standard input\n"
    "       qxdict build FILE.dic LIST       a dictionary of the lines of LIST\n"
    "\n"
    "  --kind KIND   dictionary (.dic), table (.ht, .tab), image (.img) or attributes (.idx, .dat, or what both have "
    "in\n"
    "                common); by default what the file's suffix says\n"
    "  --json        info, check, stat and get: one JSON object a line\n"
    "  --any-hash    check, stat, dump: the table has a hash of its own\n"
    "  --probe N     build: N bytes (0 to 8) of probe code a key\n"
    "  --values      build: each line is a key, a tab and a value\n"
    "  --version, --help\n"
    "\n"
    "Exit status: 0 yes; 1 no (a key is absent, damage was found, keys are equal); 2 trouble.\n";

constexpr const Commands* kKinds[] = {&kDictionary, &kTable, &kImage, &kAttributes};

struct CloseFile {
  void operator()(std::FILE* file) const { std::fclose(file); }
};

struct CommandLine {
  std::vector<std::string> words;  // command, file, and what follows
  std::string kind;
  Options options;
};

CommandLine Parse(const std::vector<std::string>& arguments) {
  CommandLine line;
  bool options = true;
  for (size_t i = 0; i < arguments.size(); i++) {
    const std::string& argument = arguments[i];
    const auto value = [&]() -> const std::string& {
      if (i + 1 >= arguments.size()) throw Trouble{argument + " needs a value"};
      return arguments[++i];
    };
    if (!options || !argument.starts_with("--")) {
      line.words.push_back(argument);
    } else if (argument == "--") {
      options = false;
    } else if (argument == "--json") {
      line.options.json = true;
    } else if (argument == "--any-hash") {
      line.options.default_hash = false;
    } else if (argument == "--values") {
      line.options.values = true;
    } else if (argument == "--kind") {
      line.kind = value();
    } else if (argument == "--probe") {
      const std::optional<unsigned long> probe = Number(value(), 8);
      if (!probe) throw Trouble{"--probe takes 0 to 8"};
      line.options.probe = static_cast<unsigned>(*probe);
    } else {
      throw Trouble{"unknown option " + argument};
    }
  }
  if (line.options.values && line.options.probe != 0) throw Trouble{"--probe and --values exclude one another"};
  return line;
}

const Commands& KindOf(const CommandLine& line) {
  const std::string& path = line.words[1];
  const size_t dot = path.rfind('.');
  const std::string suffix = " " + (dot == std::string::npos ? "?" : path.substr(dot)) + " ";
  for (const Commands* kind : kKinds) {
    if (line.kind.empty() ? std::strstr(kind->suffixes, suffix.c_str()) != nullptr : line.kind == kind->kind) {
      return *kind;
    }
  }
  throw Trouble{line.kind.empty() ? path + ": its name does not tell its kind; use --kind" : "no kind " + line.kind};
}

Exit Load(const Commands& kind, const std::vector<std::string>& words, std::FILE* in) {
  if (kind.load == nullptr) throw Trouble{"a dictionary is made by build"};
  if (words.size() == 2) return kind.load(words[1], in);
  const std::unique_ptr<std::FILE, CloseFile> text(std::fopen(words[2].c_str(), "re"));
  if (text == nullptr) throw Trouble{"cannot read " + words[2] + ": " + std::strerror(errno)};
  return kind.load(words[1], text.get());
}

Exit Do(const CommandLine& line, std::FILE* in, std::FILE* out, std::FILE* err) {
  const std::vector<std::string>& words = line.words;
  if (words.size() < 2) throw Trouble{std::string("nothing to do\n") + kUsage};
  const std::string& command = words[0];
  const std::string& path = words[1];
  if (command == "build" && words.size() == 3) return Build(path, words[2], line.options, err);
  const Commands& kind = KindOf(line);
  if (command == "info" && words.size() == 2) return kind.info(path, line.options, out);
  if (command == "check" && words.size() == 2) return kind.check(path, line.options, out);
  if (command == "stat" && words.size() == 2) return kind.stat(path, line.options, out);
  if (command == "get" && words.size() > 2) {
    return kind.get(path, {words.begin() + 2, words.end()}, line.options, out);
  }
  if (command == "dump" && words.size() == 2) {
    if (kind.dump == nullptr) throw Trouble{path + ": the keys of a dictionary are not in its file"};
    return kind.dump(path, line.options, out);
  }
  if (command == "load" && words.size() <= 3) return Load(kind, words, in);
  throw Trouble{"no such command, or other arguments than it takes\n" + std::string(kUsage)};
}

// The library's messages: progress and failures.
void Tell(const QXMessageContext*, const char* text, void* err) {
  std::fprintf(static_cast<std::FILE*>(err), "qxdict: %s\n", text);
}

Exit Finish(Exit exit, std::FILE* out) {
  if (std::fflush(out) == 0 && !std::ferror(out)) return exit;
  throw Trouble{std::string("cannot write: ") + std::strerror(errno)};
}

}  // namespace

int Run(const std::vector<std::string>& arguments, std::FILE* in, std::FILE* out, std::FILE* err) {
  QXMessageHandlerSet(Tell, err);
  int exit = kTrouble;
  try {
    if (arguments == std::vector<std::string>{"--help"}) {
      std::fputs(kUsage, out);
      exit = Finish(kYes, out);
    } else if (arguments == std::vector<std::string>{"--version"}) {
      std::fprintf(out, "qxdict %s\n", QXDictVersion());
      exit = Finish(kYes, out);
    } else {
      exit = Finish(Do(Parse(arguments), in, out, err), out);
    }
  } catch (const Trouble& trouble) {
    std::fprintf(err, "qxdict: %s\n", trouble.text.c_str());
  } catch (const std::exception& error) {
    std::fprintf(err, "qxdict: %s\n", error.what());
  }
  QXMessageHandlerSet(nullptr, nullptr);
  return exit;
}

}  // namespace tool
