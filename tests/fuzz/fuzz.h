// Entry point of a fuzz target, called by libFuzzer or, over the seed corpus, by corpus_main.cpp.
#pragma once

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size);
