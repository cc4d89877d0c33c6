// What a piece of code prints to standard error, at the level of the descriptor.
#ifndef TESTS_SUPPORT_STANDARD_ERROR_H
#define TESTS_SUPPORT_STANDARD_ERROR_H

#include <stdio.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

namespace support {

template <typename Body>
std::string StandardErrorOf(Body body) {
  FILE* file = tmpfile();
  const int kept = dup(STDERR_FILENO);
  if (file == nullptr || kept < 0 || dup2(fileno(file), STDERR_FILENO) < 0) std::abort();
  body();
  fflush(stderr);
  dup2(kept, STDERR_FILENO);
  close(kept);
  rewind(file);
  std::string text;
  for (int c = getc(file); c != EOF; c = getc(file)) text += static_cast<char>(c);
  fclose(file);
  return text;
}

}  // namespace support

#endif
