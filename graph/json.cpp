#include "graph/json.h"

#include "graph/error.h"
#include "graph/registry.h"
#include "graph/suggest.h"
#include "io/error.h"

#include <nlohmann/json.hpp>

namespace tilegrid::graph {

namespace {

using Json = nlohmann::ordered_json;

/// A value as a message shows it.
std::string shown(Json const& value)
{
    constexpr std::size_t kMostShown = 60;
    const std::string text = value.dump(-1, ' ', /*ensure_ascii*/ false, Json::error_handler_t::replace);
    return text.size() <= kMostShown ? text : text.substr(0, kMostShown) + "...";
}

/// Refuses what no graph has and what is slow or deep enough to do harm: keys of an object are found one after the other, and
/// values are shown by recursion. It goes over the text before any value is made of it.
class ShapeLimit : public nlohmann::json_sax<Json> {
public:
    bool null() override { return true; }
    bool boolean(bool) override { return true; }
    bool number_integer(number_integer_t) override { return true; }
    bool number_unsigned(number_unsigned_t) override { return true; }
    bool number_float(number_float_t, string_t const&) override { return true; }
    bool string(string_t&) override { return true; }
    bool binary(binary_t&) override { return true; }
    bool start_array(std::size_t) override { return open(); }
    bool start_object(std::size_t) override { return open(); }
    bool end_array() override { return close(); }
    bool end_object() override { return close(); }
    bool key(string_t&) override
    {
        constexpr int kMostKeys = 1000;
        if (++keys_.back() > kMostKeys) throw UsageError("an object has more than " + std::to_string(kMostKeys) + " keys, and no graph needs that.");
        return true;
    }
    /// The making of the values reports it.
    bool parse_error(std::size_t, std::string const&, nlohmann::detail::exception const&) override { return false; }

private:
    bool open()
    {
        constexpr std::size_t kMostDepth = 16;
        keys_.push_back(0);
        if (keys_.size() > kMostDepth) throw UsageError("values are nested more than " + std::to_string(kMostDepth) + " deep, and no graph needs that.");
        return true;
    }
    bool close()
    {
        keys_.pop_back();
        return true;
    }

    /// Of the objects and lists that are open.
    std::vector<int> keys_;
};

void requireKeys(Json const& object, std::vector<std::string> const& known, std::string const& where)
{
    if (!object.is_object()) throw UsageError(where + " must be an object with " + listed(known) + ".");
    for (auto const& [key, value] : object.items())
        if (!contains(known, key))
            throw UsageError(where + ": '" + key + "' is not known. It may have " + listed(known) + "." + suggestion(key, known));
}

std::string text(Json const& value, std::string const& where)
{
    if (!value.is_string()) throw UsageError(where + " must be a text in quotes, but is " + shown(value) + ".");
    return value.get<std::string>();
}

bool holdsTexts(ParameterType type)
{
    return type == ParameterType::kString || type == ParameterType::kEnum || type == ParameterType::kInputFile ||
           type == ParameterType::kOutputFile;
}

/// The text that a user would write for a value. `parameter` is null for one that the node does not have: the check of the
/// graph says so, whatever the value.
std::string parameterText(Json const& value, ParameterInfo const* parameter, std::string const& where)
{
    if (value.is_string()) return value.get<std::string>();
    const bool fits = !parameter || !holdsTexts(parameter->type);
    if (fits && (value.is_number() || value.is_boolean())) return value.dump();
    if (fits && value.is_array() && (!parameter || parameter->type == ParameterType::kVector)) {
        std::string joined;
        for (Json const& number : value) {
            if (!number.is_number()) throw UsageError(where + " must hold numbers only, but has " + shown(number) + ".");
            joined += (joined.empty() ? "" : ",") + number.dump();
        }
        return joined;
    }
    throw UsageError(where + " cannot be " + shown(value) + ": a value of type " +
                     (parameter ? typeName(parameter->type) : "number, text or list of numbers") + " is needed.");
}

Step stepFromJson(Json const& object, std::size_t index)
{
    const std::string place = "step " + std::to_string(index + 1);
    requireKeys(object, {"node", "inputs", "params", "as"}, place);
    if (!object.contains("node")) throw UsageError(place + " has no \"node\": name one of " + listed(nodeNames()) + ".");
    Step step;
    step.node = text(object["node"], place + ": \"node\"");
    const std::string label = stepLabel(index, step.node);
    if (object.contains("inputs")) {
        if (!object["inputs"].is_array()) throw UsageError(label + ": \"inputs\" must be a list of result names.");
        for (Json const& input : object["inputs"]) step.inputs.push_back(text(input, label + ": an entry of \"inputs\""));
    }
    if (object.contains("params")) {
        if (!object["params"].is_object()) throw UsageError(label + ": \"params\" must be an object of names and values.");
        NodeInfo const* node = findNode(step.node);
        for (auto const& [name, value] : object["params"].items())
            step.parameters.emplace_back(name, parameterText(value, node ? node->parameter(name) : nullptr, label + ": '" + name + "'"));
    }
    if (object.contains("as")) step.as = text(object["as"], label + ": \"as\"");
    return step;
}

/// The value as JSON: numbers and truth values as such where the text is one.
Json parameterJson(std::string const& value, ParameterInfo const* parameter)
{
    if (!parameter || holdsTexts(parameter->type)) return value;
    const std::string list = parameter->type == ParameterType::kVector ? "[" + value + "]" : value;
    Json parsed = Json::parse(list, nullptr, /*allow_exceptions*/ false);
    // A number that JSON writes in another way, such as 1e400, would come back as another value.
    if (parsed.is_discarded() || parsed.is_string() || parsed.is_object() || parsed.is_null()) return value;
    return parsed;
}

}  // namespace

Graph graphFromJson(std::string const& source)
{
    Json document;
    try {
        ShapeLimit limit;
        Json::sax_parse(source, &limit);
        document = Json::parse(source);
    } catch (Json::exception const& error) {
        throw io::InputError(std::string("this is not JSON: ") + error.what());
    }
    requireKeys(document, {"version", "steps"}, "the graph");
    if (!document.contains("version") || document["version"] != kGraphVersion)
        throw UsageError("the graph's \"version\" must be " + std::to_string(kGraphVersion) + "; this program knows no other.");
    if (!document.contains("steps") || !document["steps"].is_array()) throw UsageError("the graph must have a list \"steps\".");
    Graph graph;
    for (Json const& step : document["steps"]) graph.steps.push_back(stepFromJson(step, graph.steps.size()));
    return graph;
}

std::string toJson(Graph const& graph)
{
    Json steps = Json::array();
    for (Step const& step : graph.steps) {
        Json object = {{"node", step.node}};
        NodeInfo const* node = findNode(step.node);
        if (!step.inputs.empty()) object["inputs"] = step.inputs;
        for (auto const& [name, value] : step.parameters) object["params"][name] = parameterJson(value, node ? node->parameter(name) : nullptr);
        if (!step.as.empty()) object["as"] = step.as;
        steps.push_back(std::move(object));
    }
    try {
        return Json{{"version", kGraphVersion}, {"steps", std::move(steps)}}.dump(2) + "\n";
    } catch (Json::exception const&) {
        throw UsageError("the graph cannot be written as JSON: a name or a file in it is not UTF-8.");
    }
}

}  // namespace tilegrid::graph
