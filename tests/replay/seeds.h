// Runs something with many seeds, and says which one it was when the program ends badly.
#pragma once

#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <random>
#include <string>

// Sanitizers end with abort(), so that it is said then, too.
extern "C" inline __attribute__((used)) const char* __asan_default_options() { return "abort_on_error=1"; }
extern "C" inline __attribute__((used)) const char* __ubsan_default_options() { return "abort_on_error=1"; }
extern "C" inline __attribute__((used)) const char* __tsan_default_options() { return "abort_on_error=1"; }

inline std::string running_seed; // as it is given to the program to run it again

inline void say_seed(int signal)
{
    fprintf(stderr, "%s runs it again\n", running_seed.c_str());
    std::signal(signal, SIG_DFL);
    raise(signal);
}

// With `count` seeds from a fresh one on, or as the environment says: NAME_SEED=n that one only, NAME_SEEDS=n so many;
// until one fails.
inline void for_seeds(const std::string& name, uint64_t count, const std::function<bool(uint64_t seed)>& holds)
{
    const char *const one = getenv((name + "_SEED").c_str()), *const many = getenv((name + "_SEEDS").c_str());
    for (const int signal : {SIGABRT, SIGSEGV, SIGBUS}) { std::signal(signal, say_seed); }
    uint64_t seed = one != nullptr ? strtoull(one, nullptr, 0) : std::random_device{}();
    const uint64_t end = seed + (one != nullptr ? 1 : many != nullptr ? strtoull(many, nullptr, 0) : count);
    for (bool held = true; held && seed != end; ++seed) {
        running_seed = name + "_SEED=" + std::to_string(seed);
        held = holds(seed);
    }
}
