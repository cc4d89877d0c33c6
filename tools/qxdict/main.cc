#include "tool.h"

int main(int argc, char** argv) { return tool::Run({argv + 1, argv + argc}, stdin, stdout, stderr); }
