#include "io/gltf_document.h"

#include "io/error.h"
#include "io/file_content.h"
#include "io/text.h"
#include "io/text_scan.h"

#include <algorithm>
#include <cstring>
#include <filesystem>

namespace tilegrid::io {

namespace {

constexpr std::string_view kMagic = "glTF";
constexpr std::uint32_t kJsonChunk = 0x4e4f534a, kBinaryChunk = 0x004e4942;  // "JSON" and "BIN"
/// Above every count and offset of a file that could be there, and far from where sums of products overflow.
constexpr std::uint64_t kLargestCount = std::uint64_t(1) << 40;
/// What a value of a JSON text takes in memory, roughly.
constexpr std::uint64_t kBytesPerValue = 100;

std::uint32_t numberAt(std::string_view bytes, std::size_t at)
{
    std::uint32_t value = 0;
    std::memcpy(&value, bytes.data() + at, sizeof value);
    return value;
}

int componentsOf(std::string const& type)
{
    static constexpr std::pair<char const*, int> kTypes[] = {{"SCALAR", 1}, {"VEC2", 2}, {"VEC3", 3}, {"VEC4", 4}, {"MAT2", 4}, {"MAT3", 9}, {"MAT4", 16}};
    for (auto const& [name, components] : kTypes)
        if (type == name) return components;
    throw InputError("an accessor has the unknown type " + quoted(std::string_view(type)));
}

int bytesOf(std::uint64_t componentType)
{
    switch (componentType) {
        case 5120: case 5121: return 1;
        case 5122: case 5123: return 2;
        case 5125: case 5126: return 4;
        default: throw InputError("an accessor has the unknown component type " + std::to_string(componentType));
    }
}

template <class T> T copied(char const* at)
{
    T value;
    std::memcpy(&value, at, sizeof value);
    return value;
}

/// The fraction that a normalized integer stands for, or the integer.
template <class T> float fraction(char const* at, bool normalized)
{
    const float value = static_cast<float>(copied<T>(at));
    return normalized ? std::max(value / static_cast<float>(std::numeric_limits<T>::max()), -1.0f) : value;
}

float componentAt(char const* at, int componentType, bool normalized)
{
    switch (componentType) {
        case 5120: return fraction<std::int8_t>(at, normalized);
        case 5121: return fraction<std::uint8_t>(at, normalized);
        case 5122: return fraction<std::int16_t>(at, normalized);
        case 5123: return fraction<std::uint16_t>(at, normalized);
        case 5125: return fraction<std::uint32_t>(at, normalized);
        default: return copied<float>(at);
    }
}

std::uint32_t integerAt(char const* at, int componentType)
{
    switch (componentType) {
        case 5121: return copied<std::uint8_t>(at);
        case 5123: return copied<std::uint16_t>(at);
        case 5125: return copied<std::uint32_t>(at);
        default: throw InputError("indices have the component type " + std::to_string(componentType) + ": they must be unsigned integers");
    }
}

std::string fromBase64(std::string_view text)
{
    std::string bytes;
    bytes.reserve(text.size() / 4 * 3);
    std::uint32_t bits = 0;
    int count = 0;
    for (char c : text) {
        if (c == '=') break;
        const int digit = c >= 'A' && c <= 'Z' ? c - 'A' : c >= 'a' && c <= 'z' ? c - 'a' + 26 : c >= '0' && c <= '9' ? c - '0' + 52 : c == '+' ? 62 : c == '/' ? 63 : -1;
        if (digit < 0) throw InputError("a buffer holds what is no base64 text");
        bits = bits << 6 | static_cast<std::uint32_t>(digit);
        if ((count += 6) >= 8) bytes += static_cast<char>(bits >> (count -= 8) & 255u);
    }
    return bytes;
}

std::string fromPercentCode(std::string_view uri)
{
    std::string text;
    for (std::size_t n = 0; n < uri.size(); ++n) {
        unsigned code = 0;
        char const* const digits = uri.data() + n + 1;
        if (uri[n] == '%' && n + 2 < uri.size() && std::from_chars(digits, digits + 2, code, 16).ptr == digits + 2) {
            text += static_cast<char>(code);
            n += 2;
        } else {
            text += uri[n];
        }
    }
    return text;
}

/// The file of a buffer beside the document. \throws InputError if it would lie elsewhere
std::string fileBeside(std::string const& document, std::string_view uri)
{
    namespace fs = std::filesystem;
    const std::string name = fromPercentCode(uri);
    const fs::path relative(name), folder = fs::absolute(document).parent_path();
    const bool leads = name.empty() || name.find_first_of(std::string_view("\\:\0", 3)) != std::string::npos || relative.is_absolute()
                       || std::any_of(relative.begin(), relative.end(), [](fs::path const& part) { return part == ".."; });
    std::error_code error;
    const fs::path real = leads ? fs::path() : fs::weakly_canonical(folder / relative, error), home = fs::weakly_canonical(folder, error);
    if (leads || error || std::mismatch(home.begin(), home.end(), real.begin(), real.end()).first != home.end())
        throw InputError("its buffer " + quoted(uri) + " does not lie in the folder of the file");
    return real.string();
}

/// Refuses texts that would take far more memory than they have bytes.
void checkTextSize(std::string_view text, std::uint64_t maxBytes)
{
    const auto values = static_cast<std::uint64_t>(std::count_if(text.begin(), text.end(), [](char c) { return c == ',' || c == '[' || c == '{'; }));
    if (maxBytes > 0 && values > maxBytes / kBytesPerValue)
        throw InputError("its text has " + std::to_string(values) + " values or more, too many for the limit of " + byteText(double(maxBytes)));
}

Json const& memberOf(Json const& object, char const* key)
{
    static const Json none;
    if (!object.is_object()) throw InputError(std::string("what should have '") + key + "' is no object");
    const auto found = object.find(key);
    return found == object.end() ? none : *found;
}

}  // namespace

std::uint64_t countIn(Json const& object, char const* key)
{
    Json const& value = memberOf(object, key);
    if (!value.is_number_unsigned() || value.get<std::uint64_t>() > kLargestCount)
        throw InputError(std::string("'") + key + "' is missing, or no count that the file could hold");
    return value.get<std::uint64_t>();
}

std::uint64_t countIn(Json const& object, char const* key, std::uint64_t otherwise)
{
    return memberOf(object, key).is_null() ? otherwise : countIn(object, key);
}

std::string textIn(Json const& object, char const* key)
{
    Json const& value = memberOf(object, key);
    if (value.is_null()) return {};
    if (!value.is_string()) throw InputError(std::string("'") + key + "' is no text");
    return value.get<std::string>();
}

Json const& arrayIn(Json const& object, char const* key)
{
    static const Json none = Json::array();
    Json const& value = memberOf(object, key);
    if (value.is_null()) return none;
    if (!value.is_array()) throw InputError(std::string("'") + key + "' is no array");
    return value;
}

GltfDocument::GltfDocument(std::string_view content, std::string const& path, std::uint64_t maxBytes) : path_(path), maxBytes_(maxBytes)
{
    const std::string_view text = parseContainer(content);
    checkTextSize(text, maxBytes);
    json_ = Json::parse(text.begin(), text.end(), nullptr, /*allow_exceptions*/ false);
    if (!json_.is_object()) throw InputError("its text is no JSON object; the file may be cut off");
    checkVersion();
}

/// Sets the binary part. \return the text
std::string_view GltfDocument::parseContainer(std::string_view content)
{
    constexpr std::size_t kHeader = 12, kChunkHeader = 8;
    if (!content.starts_with(kMagic)) return content;
    if (content.size() < kHeader + kChunkHeader) throw InputError("the file is cut off");
    if (const std::uint32_t version = numberAt(content, 4); version != 2)
        throw InputError("it is of version " + std::to_string(version) + " of glTF, and version 2 is read");
    const std::uint32_t length = numberAt(content, 8);
    if (length > content.size() || length < kHeader)
        throw InputError("its header counts " + std::to_string(length) + " bytes, and the file has " + std::to_string(content.size()) + ": cut off, or a wrong count");
    std::string_view rest = content.substr(kHeader, length - kHeader), text;
    while (rest.size() >= kChunkHeader) {
        const std::uint32_t size = numberAt(rest, 0), kind = numberAt(rest, 4);
        rest.remove_prefix(kChunkHeader);
        if (size > rest.size()) throw InputError("a part of " + std::to_string(size) + " bytes is longer than the file");
        if (kind == kJsonChunk && text.empty()) text = rest.substr(0, size);
        if (kind == kBinaryChunk && binary_.empty()) binary_ = rest.substr(0, size);
        rest.remove_prefix(size);
    }
    return text;
}

void GltfDocument::checkVersion() const
{
    Json const& asset = memberOf(json_, "asset");
    const std::string version = asset.is_object() ? textIn(asset, "version") : std::string();
    if (!version.starts_with("2.")) throw InputError("it is of version " + quoted(std::string_view(version)) + " of glTF, and version 2 is read");
    for (Json const& extension : arrayIn(json_, "extensionsRequired")) {
        const std::string name = extension.is_string() ? extension.get<std::string>() : std::string();
        // They change how a surface looks, or how numbers are stored in ways that are read anyway.
        const bool harmless = name.starts_with("KHR_materials_") || name.starts_with("KHR_texture_") || name.starts_with("EXT_texture_")
                              || name == "KHR_lights_punctual" || name == "KHR_mesh_quantization";
        if (!harmless)
            throw InputError("it needs the extension " + quoted(std::string_view(name)) + ", which is not read" +
                             (name == "KHR_draco_mesh_compression" || name.ends_with("meshopt_compression") ? ": write it without compression" : ""));
    }
}

Json const& GltfDocument::element(char const* array, std::uint64_t index) const
{
    Json const& elements = arrayIn(json_, array);
    if (index >= elements.size())
        throw InputError(std::string("it names number ") + std::to_string(index) + " of its " + array + ", and has " + std::to_string(elements.size()));
    return elements[index];
}

std::string_view GltfDocument::buffer(std::uint64_t index)
{
    Json const& description = element("buffers", index);
    const std::uint64_t length = countIn(description, "byteLength");
    const std::string uri = textIn(description, "uri");
    const auto known = buffers_.find(index);
    std::string_view bytes = binary_;
    if (known != buffers_.end()) {
        bytes = known->second;
    } else if (!uri.empty()) {
        if (maxBytes_ > 0 && length > maxBytes_ - std::min(maxBytes_, loaded_)) throw InputError("its buffers take more than the limit of " + byteText(double(maxBytes_)));
        const std::size_t comma = uri.find(',');
        if (uri.starts_with("data:") && comma != std::string::npos)
            bytes = buffers_[index] = fromBase64(std::string_view(uri).substr(comma + 1));
        else
            bytes = buffers_[index] = fileContent(fileBeside(path_, uri), "buffer", maxBytes_);
        loaded_ += bytes.size();
    } else if (index != 0) {
        throw InputError("buffer " + std::to_string(index) + " has no bytes");
    }
    if (length > bytes.size())
        throw InputError("buffer " + std::to_string(index) + " is to have " + std::to_string(length) + " bytes, and there are " + std::to_string(bytes.size()) + ": cut off");
    return bytes.substr(0, length);
}

std::string_view GltfDocument::bufferView(std::uint64_t index, std::uint64_t* stride)
{
    Json const& description = element("bufferViews", index);
    Json const& extensions = memberOf(description, "extensions");
    if (extensions.is_object() && (extensions.contains("EXT_meshopt_compression") || extensions.contains("KHR_meshopt_compression")))
        throw InputError("its buffers are compressed by 'EXT_meshopt_compression', which is not read: write it without compression");
    const std::uint64_t offset = countIn(description, "byteOffset", 0), length = countIn(description, "byteLength");
    const std::string_view bytes = buffer(countIn(description, "buffer"));
    if (stride) *stride = countIn(description, "byteStride", 0);
    if (offset > bytes.size() || length > bytes.size() - offset)
        throw InputError("buffer view " + std::to_string(index) + " reaches beyond its buffer of " + std::to_string(bytes.size()) + " bytes");
    return bytes.substr(offset, length);
}

GltfDocument::View GltfDocument::view(Json const& accessor, int components, std::uint64_t count)
{
    View view;
    const std::uint64_t type = countIn(accessor, "componentType");
    const auto size = static_cast<std::uint64_t>(components * bytesOf(type));
    view.componentType = static_cast<int>(type);
    view.normalized = memberOf(accessor, "normalized") == true && type != 5126;
    if (memberOf(accessor, "bufferView").is_null()) {
        // Zeros, which sparse values replace. Without them the bytes are somewhere that an extension knows.
        Json const& sparse = memberOf(accessor, "sparse");
        if (!sparse.is_null()) bufferView(countIn(memberOf(sparse, "values"), "bufferView"), nullptr);
        std::uint64_t held = binary_.size();
        for (auto const& loaded : buffers_) held += loaded.second.size();
        if (sparse.is_null() || count > held)
            throw InputError("an accessor of " + std::to_string(count) + " values has no bytes in the file");
        return view;
    }
    const std::string_view bytes = bufferView(countIn(accessor, "bufferView"), &view.stride);
    const std::uint64_t offset = countIn(accessor, "byteOffset", 0);
    if (view.stride == 0) view.stride = size;
    if (view.stride < size) throw InputError("values of " + std::to_string(size) + " bytes follow each other every " + std::to_string(view.stride) + " bytes");
    if (view.stride > bytes.size() + size || offset > bytes.size() || (count > 0 && (count - 1) * view.stride + size > bytes.size() - offset))
        throw InputError("an accessor counts " + std::to_string(count) + " values, and its " + std::to_string(bytes.size()) + " bytes end before: cut off, or a wrong count");
    view.data = bytes.data() + offset;
    return view;
}

std::string_view GltfDocument::range(Json const& part, std::uint64_t count, std::uint64_t bytes)
{
    const std::string_view view = bufferView(countIn(part, "bufferView"), nullptr);
    const std::uint64_t offset = countIn(part, "byteOffset", 0);
    if (offset > view.size() || count * bytes > view.size() - offset) throw InputError("sparse values reach beyond their bytes");
    return view.substr(offset);
}

template <class T, class Convert> void GltfDocument::readSparse(Json const& accessor, int components, std::vector<T>& values, Convert const& convert)
{
    Json const& sparse = memberOf(accessor, "sparse");
    if (sparse.is_null()) return;
    Json const &indices = memberOf(sparse, "indices"), &changed = memberOf(sparse, "values");
    const std::uint64_t count = countIn(sparse, "count"), indexType = countIn(indices, "componentType");
    const int indexBytes = bytesOf(indexType), bytes = bytesOf(countIn(accessor, "componentType"));
    const std::string_view places = range(indices, count, std::uint64_t(indexBytes));
    const std::string_view data = range(changed, count, std::uint64_t(bytes * components));
    for (std::uint64_t n = 0; n < count; ++n) {
        const std::uint64_t row = integerAt(places.data() + n * std::uint64_t(indexBytes), static_cast<int>(indexType));
        if (row >= values.size() / std::size_t(components)) throw InputError("a sparse value is for row " + std::to_string(row) + ", which is not there");
        for (int c = 0; c < components; ++c)
            values[row * std::size_t(components) + std::size_t(c)] = convert(data.data() + (n * std::uint64_t(components) + std::uint64_t(c)) * std::uint64_t(bytes));
    }
}

GltfDocument::Rows GltfDocument::rows(std::uint64_t index)
{
    Json const& accessor = element("accessors", index);
    Rows rows;
    rows.count = countIn(accessor, "count");
    rows.components = componentsOf(textIn(accessor, "type"));
    const View from = view(accessor, rows.components, rows.count);
    const int bytes = bytesOf(std::uint64_t(from.componentType));
    rows.values.resize(rows.count * std::size_t(rows.components));
    for (std::uint64_t n = 0; from.data && n < rows.count; ++n)
        for (int c = 0; c < rows.components; ++c)
            rows.values[n * std::size_t(rows.components) + std::size_t(c)] = componentAt(from.data + n * from.stride + c * bytes, from.componentType, from.normalized);
    readSparse(accessor, rows.components, rows.values, [&from](char const* at) { return componentAt(at, from.componentType, from.normalized); });
    return rows;
}

std::vector<std::uint32_t> GltfDocument::indices(std::uint64_t index)
{
    Json const& accessor = element("accessors", index);
    if (textIn(accessor, "type") != "SCALAR") throw InputError("indices are no single values");
    const std::uint64_t count = countIn(accessor, "count");
    const View from = view(accessor, 1, count);
    std::vector<std::uint32_t> values(count);
    for (std::uint64_t n = 0; from.data && n < count; ++n) values[n] = integerAt(from.data + n * from.stride, from.componentType);
    readSparse(accessor, 1, values, [&from](char const* at) { return integerAt(at, from.componentType); });
    return values;
}

}  // namespace tilegrid::io
