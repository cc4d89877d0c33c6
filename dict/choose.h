// A choice without a branch, for what no processor can guess: written out for x86-64, where compilers make a branch of
// it whatever the source asks for.

#ifndef DICT_CHOOSE_H
#define DICT_CHOOSE_H

namespace qx {

// x where a is below b, else y. Both numbers have no sign.
template <typename Number, typename Value>
Value IfBelow(Number a, Number b, Value x, Value y) {
#ifdef __x86_64__
  __asm__("cmp %[b], %[a]\n\tcmovb %[x], %[y]" : [y] "+r"(y) : [a] "r"(a), [b] "rm"(b), [x] "rm"(x) : "cc");
  return y;
#else
  return a < b ? x : y;
#endif
}

}  // namespace qx

#endif
