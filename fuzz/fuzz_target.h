// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

// What a fuzz program consists of. libFuzzer, or replay_main.cpp without it, calls the first
// function once and the second for every input. A finding ends the process.

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace zav_shm::fuzz {

/// The input as text. It is bounded by its length, not by a zero byte.
std::string_view text_of(const uint8_t* data, size_t size);

/// Lets whatever the code under test prints go nowhere. Standard error stays: findings and
/// libFuzzer's own lines go there.
void silence_standard_output();

/// Aborts unless `holds`, with the broken rule and the text that it was broken for on standard
/// error.
void require(bool holds, const char* rule, std::string_view text = {});

}  // namespace zav_shm::fuzz
