#include "graph/chain.h"

#include "graph/error.h"
#include "graph/help.h"
#include "graph/registry.h"

#include <algorithm>
#include <cctype>
#include <optional>

namespace tilegrid::graph {

namespace {

bool isNameCharacter(char c)
{
    return std::isalnum(static_cast<unsigned char>(c)) || c == '_';
}

/// Place of the `=` of `key=value`; none if what stands before it cannot be a key, as in a path.
std::optional<std::size_t> keyEnd(std::string const& word)
{
    const std::size_t end = word.find('=');
    if (end == std::string::npos || end == 0 || !std::all_of(word.begin(), word.begin() + std::ptrdiff_t(end), isNameCharacter)) return {};
    return end;
}

bool looksLikeFile(std::string const& word)
{
    return word.find_first_of("./") != std::string::npos;
}

class ChainParser {
public:
    explicit ChainParser(std::function<bool(std::string const&)> const& exists) : exists_(exists) {}

    Graph parse(std::vector<std::string> words)
    {
        const auto flagsEnd = std::find(words.begin(), words.end(), kFlagsEnd);
        auto flags = flagsEnd - words.begin();
        if (flagsEnd != words.end()) words.erase(flagsEnd);
        for (std::string const& word : words)
            if (word.starts_with("as=")) givenNames_.push_back(word.substr(3));
        auto begin = words.begin();
        for (int number = 1;; ++number) {
            const auto end = std::find_if(begin, words.end(), [](std::string const& w) { return w == kStepEnd || w == kStepEndWord; });
            if (begin == end)
                problem("step " + std::to_string(number) + " is empty. Remove the separator next to it, or write a step.");
            else
                addStep({begin, end}, flags - (begin - words.begin()));
            if (end == words.end()) break;
            begin = end + 1;
        }
        if (!problems_.empty()) throw UsageError(problems_);
        return std::move(graph_);
    }

private:
    void problem(std::string const& text) { problems_ += (problems_.empty() ? "" : "\n") + text; }

    /// \param flags  how many of the words come before the end of flags
    void addStep(std::vector<std::string> const& words, std::ptrdiff_t flags)
    {
        Step step;
        step.node = words.front();
        std::vector<std::string> positional;
        for (auto word = words.begin() + 1; word != words.end(); ++word) {
            if (word->starts_with("--") && word - words.begin() < flags)
                addFlag(step, *word);
            else if (const auto end = keyEnd(*word))
                addKey(step, word->substr(0, *end), word->substr(*end + 1));
            else
                positional.push_back(*word);
        }
        if (NodeInfo const* node = findNode(step.node)) {
            placeWords(step, *node, positional);
            if (!standInForFile(step, *node)) readFiles(step, *node);
        }
        if (!step.as.empty()) results_.push_back(step.as);
        graph_.steps.push_back(std::move(step));
    }

    void addFlag(Step& step, std::string const& word)
    {
        if (const std::size_t end = word.find('='); end != std::string::npos)
            problem(label(step) + ": '" + word + "': write parameters without dashes, as in " + word.substr(2) + ".");
        else
            step.parameters.emplace_back(word.substr(2), "true");
    }

    void addKey(Step& step, std::string const& key, std::string const& value)
    {
        if (key != "as") {
            step.parameters.emplace_back(key, value);
        } else if (!step.as.empty() || value.empty()) {
            problem(label(step) + ": 'as=" + value + "': a step has one name for its result, as in as=smooth.");
        } else {
            step.as = value;
        }
    }

    void placeWords(Step& step, NodeInfo const& node, std::vector<std::string> const& words)
    {
        std::vector<std::string> open;
        for (ParameterInfo const& parameter : node.parameters)
            if (parameter.positional && !step.parameter(parameter.name)) open.push_back(parameter.name);

        const std::size_t inputs = words.size() > open.size() ? words.size() - open.size() : 0;
        if (inputs > node.inputs.size() && !node.takesInputs(inputs)) {
            problem(label(step) + ": '" + words.back() + "' is one word too many. Parameters are written as name=value; '" + step.node +
                    "' takes " + usage(node) + ".");
            return;
        }
        if (inputs > 0 && inputs < node.inputs.size()) {
            problem(label(step) + ": name all " + std::to_string(node.inputs.size()) + " inputs, or none of them.");
            return;
        }
        step.inputs.assign(words.begin(), words.begin() + std::ptrdiff_t(inputs));
        for (std::size_t n = inputs; n < words.size(); ++n) step.parameters.emplace_back(open[n - inputs], words[n]);
    }

    static std::string usage(NodeInfo const& node)
    {
        std::string text;
        for (InputInfo const& input : node.inputs) text += (text.empty() ? "" : " ") + inputWord(input);
        for (ParameterInfo const& parameter : node.parameters)
            if (parameter.positional) text += (text.empty() ? "" : " ") + parameter.name;
        return text.empty() ? "none" : text;
    }

    /// `info mesh.obj` describes the file; with parameters that only reading knows, as voxel=0.1, what it reads as.
    bool standInForFile(Step& step, NodeInfo const& node) const
    {
        NodeInfo const* other = node.forFiles.empty() ? nullptr : findNode(node.forFiles);
        if (!other || step.inputs.size() != 1 || contains(results_, step.inputs.front())) return false;
        std::string const& file = step.inputs.front();
        const auto isOthers = [other](auto const& entry) { return other->parameter(entry.first) != nullptr; };
        if (!contains(other->parameter("file")->endings, endingOf(file)) || !std::all_of(step.parameters.begin(), step.parameters.end(), isOthers))
            return false;
        step.node = other->name;
        step.parameters.insert(step.parameters.begin(), {"file", file});
        step.inputs.clear();
        return true;
    }

    /// Puts a read step before this one for each input that is a file.
    void readFiles(Step& step, NodeInfo const& node)
    {
        std::vector<Step> reads;
        for (std::string& input : step.inputs) {
            if (input == kLastResult || contains(results_, input) || !(input == kStandardStream || looksLikeFile(input) || exists_(input))) continue;
            Step read{"read", {}, {{"file", input}}, freeName(input)};
            results_.push_back(read.as);
            input = read.as;
            reads.push_back(std::move(read));
        }
        if (reads.empty()) return;

        NodeInfo const& reader = *findNode("read");
        const auto readsOnly = [&](auto const& entry) { return !node.parameter(entry.first) && reader.parameter(entry.first); };
        for (auto const& entry : step.parameters)
            if (readsOnly(entry)) giveToReads(reads, *reader.parameter(entry.first), entry);
        std::erase_if(step.parameters, readsOnly);
        std::move(reads.begin(), reads.end(), std::back_inserter(graph_.steps));
    }

    /// To those whose file it means something for; to all, so that the check complains, if there is none.
    static void giveToReads(std::vector<Step>& reads, ParameterInfo const& parameter, std::pair<std::string, std::string> const& entry)
    {
        const auto wants = [&](Step const& read) {
            const std::optional<std::string> file = read.file();
            return reads.size() > 1 ? appliesByTheWay(parameter, file ? &*file : nullptr) : applies(parameter, file ? &*file : nullptr);
        };
        const bool any = std::any_of(reads.begin(), reads.end(), wants);
        for (Step& read : reads)
            if (!any || wants(read)) read.parameters.push_back(entry);
    }

    /// A name for the result of reading `file`: its stem, made a name that no result has or gets later.
    std::string freeName(std::string const& file) const
    {
        const std::size_t slash = file.find_last_of('/');
        std::string stem = slash == std::string::npos ? file : file.substr(slash + 1);
        stem = stem.substr(0, stem.find('.'));
        std::replace_if(stem.begin(), stem.end(), [](char c) { return !isNameCharacter(c); }, '_');
        if (stem.empty() || !std::isalpha(static_cast<unsigned char>(stem.front()))) stem = "input" + stem;
        std::string name = stem;
        for (int n = 2; contains(results_, name) || contains(givenNames_, name); ++n) name = stem + "_" + std::to_string(n);
        return name;
    }

    std::string label(Step const& step) const { return stepLabel(graph_.steps.size(), step.node); }

    std::function<bool(std::string const&)> const& exists_;
    Graph graph_;
    std::vector<std::string> results_, givenNames_;
    std::string problems_;
};

}  // namespace

Graph parseChain(std::vector<std::string> const& words, std::function<bool(std::string const&)> const& exists)
{
    return ChainParser(exists).parse(words);
}

}  // namespace tilegrid::graph
