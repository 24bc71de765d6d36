#pragma once
#include <nlohmann/json.hpp>

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

/// The container of glTF 2.0 (Khronos, 2017): JSON that describes ranges of bytes, in the file itself or beside it. Part of the
/// reader; no other header includes it. All throw InputError without the name of the file.
namespace tilegrid::io {

using Json = nlohmann::json;

/// A number of an object that counts something.
/// \throws InputError if it is missing (without `otherwise`), no integer, or negative
std::uint64_t countIn(Json const& object, char const* key);
std::uint64_t countIn(Json const& object, char const* key, std::uint64_t otherwise);
/// The text of a member; empty if there is none.
std::string textIn(Json const& object, char const* key);
/// A member that is an array; an empty one if there is none. \throws InputError if it is something else
Json const& arrayIn(Json const& object, char const* key);

class GltfDocument {
public:
    /// \param content   of the file; must stay
    /// \param path      of the file; buffers beside it may lie in its folder and below, nowhere else
    /// \param maxBytes  0: no limit for the buffers and the text
    GltfDocument(std::string_view content, std::string const& path, std::uint64_t maxBytes);

    Json const& json() const { return json_; }
    /// An element of one of the arrays of the document. \throws InputError if it is not there
    Json const& element(char const* array, std::uint64_t index) const;

    /// The rows of an accessor, whose bytes were found to be there.
    struct Rows {
        std::uint64_t count = 0;
        int components = 0;
        /// `components` numbers for each row; normalized integers are fractions.
        std::vector<float> values;
    };
    Rows rows(std::uint64_t accessor);
    /// The integers of an accessor of single values.
    std::vector<std::uint32_t> indices(std::uint64_t accessor);

private:
    struct View {
        /// Null: zeros.
        char const* data = nullptr;
        std::uint64_t stride = 0;
        int componentType = 0;
        bool normalized = false;
    };
    std::string_view parseContainer(std::string_view content);
    void checkVersion() const;
    std::string_view buffer(std::uint64_t index);
    std::string_view bufferView(std::uint64_t index, std::uint64_t* stride);
    View view(Json const& accessor, int components, std::uint64_t count);
    std::string_view range(Json const& part, std::uint64_t count, std::uint64_t bytes);
    template <class T, class Convert> void readSparse(Json const& accessor, int components, std::vector<T>& values, Convert const& convert);

    Json json_;
    std::string_view binary_;
    std::string path_;
    std::uint64_t maxBytes_, loaded_ = 0;
    std::map<std::uint64_t, std::string> buffers_;
};

}  // namespace tilegrid::io
