#pragma once
#include "TilegridOps/substrate/traits.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

namespace tilegrid::test {

using OST::TileTree3D::BinaryTraits;
using OST::TileTree3D::QuinaryTraits;

/// Both structures, for typed tests.
using Structures = ::testing::Types<BinaryTraits, QuinaryTraits>;

struct StructureNames {
    template <class Tr> static std::string GetName(int) { return Tr::branching == 2 ? "Binary" : "Quinary"; }
};

/// A stream of numbers that depends on the seed alone, on every machine.
class Random {
public:
    explicit Random(std::uint64_t seed) : state_(seed * 0x9e3779b97f4a7c15ull + 0x1234567ull) {}
    std::uint64_t next() { return mixed(state_ += 0x9e3779b97f4a7c15ull); }
    /// 0 to n - 1.
    std::int64_t below(std::int64_t n) { return static_cast<std::int64_t>(next() % static_cast<std::uint64_t>(n)); }
    /// low to high, both inclusive.
    std::int64_t between(std::int64_t low, std::int64_t high) { return low + below(high - low + 1); }
    bool oneIn(int n) { return below(n) == 0; }

    static std::uint64_t mixed(std::uint64_t z)
    {
        z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ull;
        z = (z ^ (z >> 27)) * 0x94d049bb133111ebull;
        return z ^ (z >> 31);
    }

private:
    std::uint64_t state_;
};

}  // namespace tilegrid::test
