#include "TilegridOps/host/logger.h"
#include "support/output.h"
#include "support/text_match.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace tilegrid::test {
namespace {

using Messages = std::vector<std::pair<Severity, std::string>>;

TEST(HostLogger, sends_each_message_with_its_severity_to_the_sink_of_the_services)
{
    Messages messages;
    const Corvid::RuntimeServices services(nullptr, [&messages](Severity severity, Corvid::StringView text) {
        messages.push_back({severity, std::string(text)});
    });
    const CoreGL::CorvidLogger logger(services);
    logger.error("an error");
    logger.warn("a warning");
    logger.info("a note");
    services.logError("direct");
    const Corvid::RuntimeServices copy = services;
    copy.logError("by a copy");
    EXPECT_EQ(messages,
              (Messages{{Severity::kError, "an error"},
                        {Severity::kWarning, "a warning"},
                        {Severity::kInfo, "a note"},
                        {Severity::kError, "direct"},
                        {Severity::kError, "by a copy"}}));
}

TEST(HostLogger, without_a_sink_writes_to_standard_error)
{
    const CapturedStream errors(std::cerr), output(std::cout);
    CoreGL::CorvidLogger(Corvid::RuntimeServices()).error("something is wrong");
    EXPECT_NE(errors.text().find("something is wrong"), std::string::npos);
    EXPECT_EQ(output.text(), "");
}

TEST(HostLogger, hands_an_exception_of_a_sink_to_the_caller)
{
    const Corvid::RuntimeServices services(nullptr,
                                           [](Severity, Corvid::StringView) { throw std::logic_error("sink"); });
    EXPECT_THROW(CoreGL::CorvidLogger(services).info("x"), std::logic_error);
}

TEST(HostLogger, keeps_its_levels_apart)
{
    const int verbose = CoreGL::Logger::verboseLevel(), error = CoreGL::Logger::errorVerboseLevel();
    const bool testMode = CoreGL::Logger::getEnableTestMode();
    CoreGL::Logger::setVerboseLevel(2);
    CoreGL::Logger::setErrorVerboseLevel(5);
    CoreGL::Logger::setEnableTestMode(true);
    EXPECT_EQ(CoreGL::Logger::verboseLevel(), 2);
    EXPECT_EQ(CoreGL::Logger::errorVerboseLevel(), 5);
    EXPECT_TRUE(CoreGL::Logger::getEnableTestMode());
    CoreGL::Logger::setVerboseLevel(verbose);
    CoreGL::Logger::setErrorVerboseLevel(error);
    CoreGL::Logger::setEnableTestMode(testMode);
    EXPECT_EQ(CoreGL::Logger::verboseLevel(), verbose);
}

TEST(HostTimer, reports_its_start_and_its_end_as_progress)
{
    std::vector<std::pair<std::string, double>> progress;
    const Corvid::RuntimeServices services(nullptr, {}, [&progress](Corvid::StringView what, double done) {
        progress.push_back({std::string(what), done});
    });
    {
        const auto timer = CoreGL::Logger::timer("Volume::stage", &services);
        EXPECT_EQ(progress, (std::vector<std::pair<std::string, double>>{{"Volume::stage", 0.0}}));
        EXPECT_GE(timer->seconds(), 0.0);
    }
    EXPECT_EQ(progress, (std::vector<std::pair<std::string, double>>{{"Volume::stage", 0.0}, {"Volume::stage", 1.0}}));
}

TEST(HostTimer, writes_its_name_and_seconds_above_verbose_level_1_only)
{
    for (int level : {0, 1, 2}) {
        const VerboseLevel verbose(level);
        const CapturedStream out;
        CoreGL::Logger::timer("Volume::stage", nullptr).reset();
        if (level > 1) {
            EXPECT_TRUE(matches(out.text(), "Volume::stage : [-+.0-9e]+ s\n")) << out.text();
        } else {
            EXPECT_EQ(out.text(), "");
        }
    }
}

TEST(HostTimer, in_a_slot_can_be_restarted)
{
    const VerboseLevel verbose(2);
    const CapturedStream out;
    {
        const auto slot = CoreGL::Logger::timerPtr("first", nullptr);
        ASSERT_TRUE(slot && *slot);
        *slot = CoreGL::Logger::timer("second", nullptr);
        EXPECT_EQ(out.lines().size(), 1u) << "the first one has ended";
    }
    ASSERT_EQ(out.lines().size(), 2u);
    EXPECT_EQ(out.lines()[0].substr(0, 5), "first");
    EXPECT_EQ(out.lines()[1].substr(0, 6), "second");
}

TEST(TerminationMessage, goes_to_its_sink_or_to_standard_output_above_verbose_level_0)
{
    std::vector<std::string> names;
    setTerminationSink([&names](Corvid::StringView name) { names.push_back(std::string(name)); });
    CoreGL::terminateMessage("scale_property");
    setTerminationSink({});
    EXPECT_EQ(names, (std::vector<std::string>{"scale_property"}));
    for (int level : {0, 1}) {
        const VerboseLevel verbose(level);
        const CapturedStream out;
        CoreGL::terminateMessage("grade_volume");
        EXPECT_EQ(out.text().find("grade_volume") != std::string::npos, level > 0);
    }
    EXPECT_EQ(names.size(), 1u);
}

}  // namespace
}  // namespace tilegrid::test
