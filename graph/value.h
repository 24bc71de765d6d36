#pragma once
#include <cstdint>
#include <limits>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

/// Typed parameters of a node. A value has one text form, the one that a user writes; defaults, chains and JSON share it.
namespace tilegrid::graph {

enum class ParameterType {
    kFloat,       ///< a finite number that a float can hold
    kInt,
    kBool,        ///< true or false, yes or no
    kString,
    kEnum,        ///< one of `choices`
    kVector,      ///< finite numbers, separated by commas
    kLength,      ///< a number, alone or with a unit: 0.1wu is in world units, 3vx in finest voxels
    kInputFile,   ///< ends in one of `endings`
    kOutputFile,
};

/// What a length is counted in.
enum class LengthUnit { kWorld, kVoxels };

struct Length {
    double value = 0;
    LengthUnit unit = LengthUnit::kWorld;
};

/// Bounds, inclusive unless `aboveMin`.
struct Range {
    double min = -std::numeric_limits<double>::infinity();
    double max = std::numeric_limits<double>::infinity();
    bool aboveMin = false;
    bool contains(double value) const { return (aboveMin ? value > min : value >= min) && value <= max; }
};

struct ParameterInfo {
    std::string name;
    ParameterType type = ParameterType::kString;
    /// One line for people.
    std::string help;
    /// What the number counts, for people; empty if it is a plain one. A length always has one.
    std::string unit = "";
    /// As a user would write it. None: the parameter must be given. A length whose default is empty is missing in `Arguments`
    /// unless it is given.
    std::optional<std::string> defaultText = std::nullopt;
    /// May stand without its name, after the inputs. Only for parameters without default.
    bool positional = false;
    Range range = {};
    std::vector<std::string> choices = {};
    std::vector<std::string> endings = {};
    /// Formats that `-` may have, which is standard input or output; the step then has a parameter `format`, unless there is
    /// one format only. Empty: files only.
    std::vector<std::string> streamed = {};
    /// Applies only to steps whose parameter `file` has one of these endings; empty: to all.
    std::vector<std::string> onlyFor = {};
    /// Means something only together with the parameter of this name; empty: always.
    std::string needs = "";
    /// The name of another parameter that says the same in another way, and names this one likewise: exactly one of both is given, and
    /// the other is missing in `Arguments`. Without defaults.
    std::string insteadOf = "";
    /// Of these: files that need it or not, depending on their content. Without a default it is then missing in `Arguments`.
    std::vector<std::string> optionalFor = {};
    /// Of `onlyFor`: files that get it only from a step about this file alone, and not by the way, from a step that reads other files
    /// too or from a setting for all steps.
    std::vector<std::string> ownStepFor = {};
    /// What a length without a unit counts.
    LengthUnit bareUnit = LengthUnit::kWorld;
    /// Whether there is a voxel that a length can be counted in.
    bool voxelsAllowed = true;
};

/// A choice is held as its place in `choices`.
using Value = std::variant<double, std::int64_t, bool, std::string, std::vector<double>, Length>;

/// \throws UsageError with one sentence that says what is wrong with the text, and what is right
Value parseValue(ParameterInfo const& parameter, std::string const& text);

/// The name of a type, for people and schemas.
char const* typeName(ParameterType type);
/// Bounds as "above 0", "0 to 1", ...; empty if there are none.
std::string rangeText(Range const& range);

/// A number in as few digits as lead back to it.
std::string shortest(double value);
std::string shortest(float value);
/// The double whose shortest text is that of the float, for writers that only know doubles.
double asWritten(float value);

/// The ending of a file name in lower case, with its dot; empty if there is none.
std::string endingOf(std::string_view file);
bool contains(std::vector<std::string> const& names, std::string_view name);

/// The checked values of a step, by parameter name. Asking for a name or type that the node does not have is a bug.
class Arguments {
public:
    void set(std::string const& name, Value value) { values_[name] = std::move(value); }
    bool has(std::string const& name) const { return values_.count(name) != 0; }
    double number(std::string const& name) const { return std::get<double>(values_.at(name)); }
    std::int64_t integer(std::string const& name) const { return std::get<std::int64_t>(values_.at(name)); }
    int choice(std::string const& name) const { return int(std::get<std::int64_t>(values_.at(name))); }
    bool flag(std::string const& name) const { return std::get<bool>(values_.at(name)); }
    std::string const& text(std::string const& name) const { return std::get<std::string>(values_.at(name)); }
    std::vector<double> const& vector(std::string const& name) const { return std::get<std::vector<double>>(values_.at(name)); }
    Length length(std::string const& name) const { return std::get<Length>(values_.at(name)); }

private:
    std::map<std::string, Value> values_;
};

}  // namespace tilegrid::graph
