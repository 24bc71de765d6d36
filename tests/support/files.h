#pragma once
#include "TilegridOps/host/runtime.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <unistd.h>
#include <vector>

namespace tilegrid::test {

/// A folder of its own for the running test, removed with everything in it at the end.
class TestFolder {
public:
    TestFolder()
    {
        auto const* test = ::testing::UnitTest::GetInstance()->current_test_info();
        std::string name = std::string(test->test_suite_name()) + "." + test->name() + "." + std::to_string(::getpid());
        for (char& c : name)
            if (c == '/') c = '_';
        path_ = std::filesystem::temp_directory_path() / ("tilegrid " + name);  // with a space, as users have them
        std::filesystem::create_directories(path_);
    }
    TestFolder(TestFolder const&) = delete;
    TestFolder& operator=(TestFolder const&) = delete;
    ~TestFolder()
    {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    std::string file(std::string const& name) const { return (path_ / name).string(); }
    std::string write(std::string const& name, std::string const& content) const
    {
        std::ofstream(file(name), std::ios::binary) << content;
        return file(name);
    }
    std::string read(std::string const& name) const
    {
        std::ifstream in(file(name), std::ios::binary);
        return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    }
    std::size_t fileCount() const
    {
        return static_cast<std::size_t>(
            std::distance(std::filesystem::directory_iterator(path_), std::filesystem::directory_iterator()));
    }

private:
    std::filesystem::path path_;
};

/// Runtime services that keep what they were told.
class KeptMessages {
public:
    Corvid::RuntimeServices services()
    {
        return Corvid::RuntimeServices(nullptr, [this](Severity severity, Corvid::StringView text) {
            texts_.push_back((severity == Severity::kWarning     ? "warning: "
                                  : severity == Severity::kError ? "error: "
                                                                 : "")
                             + std::string(text.data(), text.size()));
        });
    }
    std::vector<std::string> const& texts() const { return texts_; }
    bool mention(std::string const& part) const
    {
        for (std::string const& text : texts_)
            if (text.find(part) != std::string::npos) return true;
        return false;
    }

private:
    std::vector<std::string> texts_;
};

/// The text of the exception of type E that `work` must throw; a failure, and an empty text, if it does not.
template <class E, class Work> std::string errorOf(Work const& work)
{
    try {
        work();
    } catch (E const& error) {
        return error.what();
    } catch (std::exception const& error) {
        ADD_FAILURE() << "another exception: " << error.what();
        return {};
    }
    ADD_FAILURE() << "no exception";
    return {};
}

inline bool contains(std::string const& text, std::string const& part) { return text.find(part) != std::string::npos; }

}  // namespace tilegrid::test
