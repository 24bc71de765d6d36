#pragma once
#include <string>
#include <vector>

/// The options of the command as data: usage, man page, completion and messages are made from it.
namespace tilegrid::cli {

struct OptionInfo {
    std::string name = "";
    /// Other ways to write it; empty: none.
    std::string shortName = "";
    /// What stands for its value in help; empty: it takes none.
    std::string value = "";
    /// Whether the value may be left out, and then only stands behind `=`.
    bool valueOptional = false;
    std::string help = "";
    /// What the value may be; empty: not a list.
    std::vector<std::string> choices = {};
    bool valueIsFile = false;
};

std::vector<OptionInfo> const& optionTable();

/// "--save FILE", "--quiet, -q", "--progress=FORM".
std::string optionUse(OptionInfo const& option);

struct ExitStatus {
    int status;
    char const* meaning;
};
std::vector<ExitStatus> const& exitStatuses();

/// Forms of the command line, and what they do.
struct UseForm {
    char const* line;
    char const* help;
};
std::vector<UseForm> const& useForms();

/// Paragraphs on how a step is written.
std::vector<std::string> const& stepSyntax();
/// Command lines that work.
std::vector<std::string> const& exampleLines();

}  // namespace tilegrid::cli
