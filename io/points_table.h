#pragma once
#include "TilegridOps/host/object.h"
#include "TilegridOps/host/runtime.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

/// Points as tables, and the two forms of files that hold such tables. All throw InputError without the name of the file.
namespace tilegrid::io {

/// Points as columns of numbers, the form that text and binary tables share.
struct PointTable {
    std::vector<std::string> names;
    /// By column, all of one length.
    std::vector<std::vector<float>> columns;
    std::size_t rows() const { return columns.empty() ? 0 : columns.front().size(); }
};
/// \throws InputError without the name of a file
Corvid::Ptr<Ostara::Object> pointsOf(PointTable const& table);
PointTable tableOf(Ostara::Object const& points, Corvid::RuntimeServices const& services);

/// \param maxBytes  0: no limit for what the table takes
PointTable tableFromCsv(std::string_view content, std::uint64_t maxBytes);
PointTable tableFromPly(std::string_view content, std::uint64_t maxBytes);

/// Floats in as few digits as lead back to them; a first row of names.
std::string csvOf(PointTable const& table);
/// Little-endian floats.
std::string plyOf(PointTable const& table);

}  // namespace tilegrid::io
