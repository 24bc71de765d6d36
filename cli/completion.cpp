#include "cli/option_table.h"
#include "cli/self_description.h"
#include "graph/registry.h"

#include <algorithm>

namespace tilegrid::cli {

namespace {

std::string joined(std::vector<std::string> const& words)
{
    std::string text;
    for (std::string const& word : words) text += (text.empty() ? "" : " ") + word;
    return text;
}

/// A function that prints the text of the case that its argument is.
std::string caseFunction(std::string const& name, std::vector<std::pair<std::string, std::string>> const& cases)
{
    std::string text = name + "()\n{\n    case $1 in\n";
    for (auto const& [label, words] : cases) text += "        " + label + ") echo '" + words + "' ;;\n";
    return text + "    esac\n}\n";
}

/// Keys and flags by node; values and endings of files by NODE.KEY.
std::string tables()
{
    std::vector<std::pair<std::string, std::string>> keys, values, endings;
    for (graph::NodeInfo const& node : graph::nodes()) {
        std::vector<std::string> words;
        for (graph::ParameterInfo const& parameter : node.parameters) {
            const std::string label = node.name + "." + parameter.name;
            words.push_back(parameter.name + "=");
            if (parameter.type == graph::ParameterType::kBool) {
                words.push_back("--" + parameter.name);
                values.emplace_back(label, "true false");
            }
            if (!parameter.choices.empty()) values.emplace_back(label, joined(parameter.choices));
            if (!parameter.endings.empty()) endings.emplace_back(label, joined(parameter.endings));
        }
        if (node.hasResult) words.push_back("as=");
        keys.emplace_back(node.name, joined(words));
    }
    for (OptionInfo const& option : optionTable())
        if (!option.choices.empty()) values.emplace_back("option." + option.name, joined(option.choices));
    return caseFunction("_tilegrid_keys", keys) + caseFunction("_tilegrid_values", values) + caseFunction("_tilegrid_endings", endings);
}

std::string lists()
{
    std::vector<std::string> options, withValue, fileOptions;
    for (OptionInfo const& option : optionTable()) {
        options.push_back(option.name);
        if (!option.value.empty() && !option.valueOptional) withValue.push_back(option.name);
        if (option.valueIsFile) fileOptions.push_back(option.name);
    }
    // What read reads may stand as an input of any node.
    std::vector<std::string> readable;
    for (graph::ParameterInfo const& parameter : graph::findNode("read")->parameters)
        if (parameter.type == graph::ParameterType::kInputFile) readable = parameter.endings;
    return "_tilegrid_nodes='" + joined(graph::nodeNames()) + "'\n_tilegrid_groups='" + joined(graph::nodeGroups()) + "'\n_tilegrid_options='" +
           joined(options) + "'\n_tilegrid_with_value=' " + joined(withValue) + " '\n_tilegrid_with_file=' " + joined(fileOptions) +
           " '\n_tilegrid_readable='" + joined(readable) + "'\n";
}

constexpr char kScript[] = R"bash(
# Files that end in one of the words, and folders.
_tilegrid_files()
{
    local word=$1 ending file
    shift
    if [[ $# -eq 0 ]]; then return; fi
    while IFS= read -r file; do
        if [[ -d $file ]]; then
            COMPREPLY+=("$prefix$file/")
            continue
        fi
        for ending; do
            if [[ ${file,,} == *"$ending" ]]; then
                COMPREPLY+=("$prefix$file")
                break
            fi
        done
    done < <(compgen -f -- "$word")
}

_tilegrid_words()
{
    COMPREPLY+=($(compgen -P "$prefix" -W "$2" -- "$1"))
}

_tilegrid()
{
    COMPREPLY=()
    local line=${COMP_LINE:0:COMP_POINT} words word node= results= first=1 skip= prefix= key n
    # The shell cuts words at =, so the line is cut here.
    set -f
    words=($line)
    set +f
    if [[ $line == *[[:space:]] ]]; then words+=(''); fi
    word=${words[-1]}
    for ((n = 1; n < ${#words[@]} - 1; ++n)); do
        if [[ $skip ]]; then skip=; continue; fi
        case ${words[n]} in
            '!' | then) node= first= ;;
            as=*) results+=" ${words[n]#as=}" ;;
            -*) if [[ $_tilegrid_with_value == *" ${words[n]} "* ]]; then skip=${words[n]}; fi ;;
            *) node=${node:-${words[n]}} ;;
        esac
    done
    if [[ $word == *=* ]]; then
        key=${word%%=*}
        # The part that the shell replaces begins behind =, unless that is no longer a separator.
        [[ $COMP_WORDBREAKS == *=* ]] || prefix=$key=
        word=${word#*=}
        if [[ $key == --* ]]; then
            skip=$key
        else
            _tilegrid_words "$word" "$(_tilegrid_values "$node.$key")"
            _tilegrid_files "$word" $(_tilegrid_endings "$node.$key")
            return
        fi
    fi
    if [[ $skip ]]; then
        _tilegrid_words "$word" "$(_tilegrid_values "option.$skip")"
        if [[ $_tilegrid_with_file == *" $skip "* ]]; then _tilegrid_files "$word" .json; fi
    elif [[ $word == -* ]]; then
        _tilegrid_words "$word" "$(_tilegrid_keys "$node" | tr ' ' '\n' | grep -e ^--) $_tilegrid_options"
    elif [[ ! $node ]]; then
        _tilegrid_words "$word" "$_tilegrid_nodes${first:+ run nodes help}"
    elif [[ $node == run ]]; then
        _tilegrid_files "$word" .json
    elif [[ $node == nodes ]]; then
        _tilegrid_words "$word" "$_tilegrid_nodes"
    elif [[ $node == help ]]; then
        _tilegrid_words "$word" "$_tilegrid_nodes $_tilegrid_groups"
    else
        _tilegrid_words "$word" "$(_tilegrid_keys "$node") $results then"
        _tilegrid_files "$word" $_tilegrid_readable $(_tilegrid_endings "$node.file")
    fi
    if [[ ${#COMPREPLY[@]} -eq 1 && $COMPREPLY == *[=/] ]]; then compopt -o nospace 2> /dev/null; fi
}
complete -F _tilegrid tilegrid
)bash";

}  // namespace

std::string bashCompletion()
{
    return "# Completion of tilegrid for bash, made by `tilegrid help --completion=bash`.\n" + lists() + tables() + kScript;
}

}  // namespace tilegrid::cli
