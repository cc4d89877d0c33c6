// The same operations, on the tables and maps as they are compiled where there are no vector instructions.

#include "operations_test.cc"
