// What a fuzz target offers to libFuzzer and to the replay program.
#pragma once

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

// Events that the inputs so far have brought to client callbacks.
std::size_t events_seen();
