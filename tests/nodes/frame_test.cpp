#include "TilegridOps/nodes/node_table.h"
#include "node_cases.h"
#include "support/components.h"
#include "support/jobs.h"
#include "support/output.h"

#include <optional>

namespace tilegrid::test {
namespace {

using namespace Ostara::Geometry;
using Services = Corvid::RuntimeServices;
using List = Messages::List;

/// The float channel named `float` of a volume, as bytes in order; empty if it is not there.
template <class Tr> std::vector<float> floatsOf(HostPtr const& host)
{
    const auto native = shallow_copy_object_to_ost_volume(*host);
    std::vector<float> values;
    if (!native) return values;
    const auto channel = native->template component<OST::TileTree3D::Channel<Tr, float, Tr::width, 0>>("float");
    for (OST::int64 n = 0; channel && n < channel->tileCount(-1); ++n) {
        const auto tile = channel->tileData(n);
        values.insert(values.end(), tile.begin(), tile.end());
    }
    return values;
}

TEST(NodeFrame, is_tested_for_every_node_of_the_table)
{
    // These have frames of their own, and tests of their own: one takes no volume, one only looks at it, one has two volumes, and the
    // others speak, want a level set, or lose what they cannot serve.
    std::set<std::string> tested{"create_empty_volume", "validate_volume", "resample_volume",       "compute_volume_depth",
                                 "resize_level_set",    "set_voxel_size",  "coarsen_voxel_property"};
    for (VolumeNode const& node : volumeNodes()) tested.insert(node.name);
    for (QueryNode const& node : queryNodes()) tested.insert(node.name);
    for (nodes::NodeSpec const& spec : nodes::kNodeTable)
        EXPECT_TRUE(tested.count(std::string(spec.name))) << spec.name << " has no row in the lists of node cases";
}

template <class Tr> class NodeFrame : public ::testing::Test {
protected:
    HostPtr sample_ = sampleVolume<Tr>();
};
TYPED_TEST_SUITE(NodeFrame, Structures, StructureNames);

TYPED_TEST(NodeFrame, cancelled_at_entry_gives_an_empty_object_and_never_looks_at_the_type)
{
    for (VolumeNode const& node : volumeNodes())
        for (HostPtr const& input : {this->sample_, node.wrongType}) {
            SCOPED_TRACE(node.name);
            Job job;
            job.cancel();
            Messages messages(&job);
            const Terminations terminations;
            HostPtr output = this->sample_;
            parallel::runJob(&job, 2, [&] { node.run(input, output, messages.services()); });
            EXPECT_TRUE(isEmptyObject(output));
            EXPECT_NE(output.get(), input.get());
            EXPECT_EQ(messages.list(), List());
            EXPECT_TRUE(terminations.names().empty());
        }
}

TYPED_TEST(NodeFrame, cancelled_at_any_poll_gives_an_empty_object_tells_the_host_and_spares_shared_inputs)
{
    const auto before = floatsOf<TypeParam>(this->sample_);
    const auto components = componentsOf(this->sample_);
    for (VolumeNode const& node : volumeNodes()) {
        SCOPED_TRACE(node.name);
        std::optional<std::int64_t> polls;
        for (int threads : kThreadCounts) {
            Job job;
            Messages messages(&job);
            const Terminations terminations;
            HostPtr output;
            const auto run = [&] {
                output = nullptr;
                parallel::runJob(&job, threads, [&] { node.run(this->sample_, output, messages.services()); });
            };
            run();
            EXPECT_FALSE(isEmptyObject(output));
            if (!polls) polls = job.pollCount();
            EXPECT_EQ(job.pollCount(), *polls) << threads << " threads";
            for (std::int64_t n = 1; n <= *polls; ++n) {
                SCOPED_TRACE("poll " + std::to_string(n));
                job.reset();
                job.cancelAtPoll(n);
                run();
                EXPECT_TRUE(isEmptyObject(output));
                EXPECT_EQ(terminations.names(), std::vector<std::string>(std::size_t(n - 1), node.name));
                EXPECT_EQ(this->sample_.useCount(), 1);
                EXPECT_TRUE(componentsOf(this->sample_) == components);
            }
            EXPECT_TRUE(floatsOf<TypeParam>(this->sample_) == before) << "the caller's volume is untouched";
            job.reset();
            run();
            EXPECT_FALSE(isEmptyObject(output)) << "the next call is right";
            EXPECT_EQ(messages.list(), List());
        }
    }
}

TYPED_TEST(NodeFrame, cancelled_with_an_input_of_its_own_leaves_nothing_behind)
{
    for (VolumeNode const& node : volumeNodes()) {
        SCOPED_TRACE(node.name);
        Job job;
        job.cancelAtPoll(2);
        Messages messages(&job);
        const Terminations terminations;
        HostPtr output, input = sampleVolume<TypeParam>();
        parallel::runJob(&job, 2, [&] { node.run(std::move(input), output, messages.services()); });
        EXPECT_TRUE(isEmptyObject(output));
        EXPECT_EQ(output.useCount(), 1);
    }
}

TYPED_TEST(NodeFrame, stops_under_the_job_of_its_services_too)
{
    for (VolumeNode const& node : volumeNodes()) {
        Job job;
        job.cancel();
        Messages messages(&job);
        HostPtr output;
        node.run(this->sample_, output, messages.services());
        EXPECT_TRUE(isEmptyObject(output)) << node.name;
    }
}

TYPED_TEST(NodeFrame, given_the_wrong_type_says_so_once_and_hands_the_input_through)
{
    for (VolumeNode const& node : volumeNodes()) {
        SCOPED_TRACE(node.name);
        for (HostPtr const& type : {node.wrongType, HostPtr(Corvid::makeMutable<Host>(getPointCloudPrototype()))}) {
            for (bool shared : {false, true}) {
                Messages messages;
                auto made = Corvid::makeMutable<Host>(*type);
                made->set("mark", 4);
                HostPtr input = std::move(made), mine;
                Host const* address = input.get();
                if (shared) mine = input;
                const HostPtr previous = Ostara::createObject();
                HostPtr output = previous;
                node.run(std::move(input), output, messages.services());
                EXPECT_EQ(messages.list(), (List{{Severity::kError, node.typeError}}));
                if (node.onWrongType == OnWrongType::kLeavesOutput) {
                    EXPECT_TRUE(output == previous);
                    continue;
                }
                if (node.onWrongType == OnWrongType::kGivesEmpty) {
                    EXPECT_TRUE(isEmptyObject(output) && output != previous);
                    continue;
                }
                ASSERT_TRUE(output);
                const bool cloned = shared && node.onWrongType == OnWrongType::kHandsThrough;
                EXPECT_EQ(output.get() == address, !cloned) << "shared inputs are cloned, others are not";
                ASSERT_NE(output->get<int>("mark"), nullptr);
                EXPECT_EQ(*output->get<int>("mark"), 4);
                EXPECT_EQ(output.useCount(), shared && !cloned ? 2 : 1);
                if (shared) {
                    EXPECT_EQ(mine.useCount(), cloned ? 1 : 2);
                    EXPECT_NE(mine->get<int>("mark"), nullptr);
                }
            }
        }
    }
}

TYPED_TEST(NodeFrame, keeps_everything_of_the_input_that_it_does_not_change)
{
    for (VolumeNode const& node : volumeNodes()) {
        SCOPED_TRACE(node.name);
        Messages messages;
        HostPtr output;
        node.run(sampleVolume<TypeParam>(), output, messages.services());
        ASSERT_TRUE(output && output->native());
        EXPECT_TRUE(Host::isA(*output, *getVolumePrototype()));
        ASSERT_NE(output->get<int>("author"), nullptr);
        EXPECT_EQ(*output->get<int>("author"), 17);
        for (auto const& [name, address] : componentsOf(this->sample_))
            EXPECT_TRUE(output->native()->hasComponentFromName(name)) << name;
        EXPECT_EQ(messages.list(), List());
        EXPECT_TRUE(checkTree(*treeOf<TypeParam>(*output->native())).empty());
        EXPECT_EQ(output.useCount(), 1);
    }
}

TYPED_TEST(NodeFrame, moves_an_input_of_its_own_through_without_copying_a_component)
{
    for (VolumeNode const& node : volumeNodes()) {
        // One sees its input by reference, the other makes a new volume.
        if (node.onWrongType == OnWrongType::kLeavesOutput || node.onWrongType == OnWrongType::kGivesEmpty) continue;
        SCOPED_TRACE(node.name);
        HostPtr output, input = sampleVolume<TypeParam>();
        auto components = componentsOf(input);
        node.run(std::move(input), output, Messages().services());
        auto after = componentsOf(output);
        for (auto const& [name, address] : components) EXPECT_EQ(after[name], address) << name;
    }
}

TYPED_TEST(NodeFrame, leaves_a_shared_input_untouched)
{
    const auto before = floatsOf<TypeParam>(this->sample_);
    const auto components = componentsOf(this->sample_);
    for (VolumeNode const& node : volumeNodes()) {
        SCOPED_TRACE(node.name);
        HostPtr output;
        node.run(this->sample_, output, Messages().services());
        EXPECT_NE(output.get(), this->sample_.get());
        EXPECT_TRUE(floatsOf<TypeParam>(this->sample_) == before);
        EXPECT_TRUE(componentsOf(this->sample_) == components);
        EXPECT_EQ(this->sample_.useCount(), 1);
    }
}

TYPED_TEST(NodeFrame, works_when_input_and_output_are_the_same_pointer)
{
    for (VolumeNode const& node : volumeNodes()) {
        SCOPED_TRACE(node.name);
        HostPtr volume = sampleVolume<TypeParam>(), apart;
        node.run(this->sample_, apart, Messages().services());
        node.run(volume, volume, Messages().services());
        ASSERT_TRUE(volume && volume->native());
        EXPECT_TRUE(orderOf(*treeOf<TypeParam>(*volume->native())) == orderOf(*treeOf<TypeParam>(*apart->native())));
    }
}

TEST(NodeFrame, of_a_volume_without_native_object_leaves_a_null_output_or_the_one_that_was_there)
{
    for (VolumeNode const& node : volumeNodes()) {
        SCOPED_TRACE(node.name);
        Messages messages;
        const HostPtr previous = Ostara::createObject();
        HostPtr output = previous;
        node.run(Corvid::makeMutable<Host>(getLevelSetPrototype()), output, messages.services());
        if (node.name == "merge_volumes_internal")
            EXPECT_TRUE(output && output->native()) << "a new volume, without anything in it";
        else
            EXPECT_TRUE(node.onWrongType == OnWrongType::kLeavesOutput ? output == previous : output == nullptr);
        const bool rebuilds = node.name == "rebuild_level_set";
        EXPECT_EQ(messages.list(), (rebuilds ? List{{Severity::kError, "Unable to rebuild level set."}} : List()));
    }
}

/// Services whose messages raise an exception.
template <class E> Services throwing(E const& error)
{
    return Services(nullptr, [error](Severity, Corvid::StringView) { throw error; });
}

TEST(NodeFrame, lets_every_exception_but_the_cancellation_pass)
{
    for (VolumeNode const& node : volumeNodes()) {
        SCOPED_TRACE(node.name);
        const Terminations terminations;
        HostPtr output, input = Corvid::makeMutable<Host>(*node.wrongType);
        Host const* address = input.get();
        EXPECT_THROW(node.run(std::move(input), output, throwing(std::logic_error("mine"))), std::logic_error);
        if (node.onWrongType == OnWrongType::kHandsThrough) {
            EXPECT_EQ(output.get(), address) << "the handler does not touch the output";
        }
        EXPECT_THROW(node.run(node.wrongType, output, throwing(std::runtime_error("some other text"))),
                     std::runtime_error);
        EXPECT_THROW(node.run(node.wrongType, output, throwing(42)), int);
        EXPECT_TRUE(terminations.names().empty());
    }
    for (QueryNode const& node : queryNodes()) {
        SCOPED_TRACE(node.name);
        const Terminations terminations;
        EXPECT_THROW(node.run(*Ostara::createObject(), throwing(std::logic_error("mine"))), std::logic_error);
        EXPECT_THROW(node.run(*Ostara::createObject(), throwing(42)), int);
        EXPECT_TRUE(terminations.names().empty());
    }
}

TEST(NodeFrame, takes_any_exception_with_the_text_of_the_cancellation_as_one)
{
    const std::logic_error cancellation(OST::exceptionMessage.c_str());
    for (VolumeNode const& node : volumeNodes()) {
        const Terminations terminations;
        HostPtr output;
        EXPECT_NO_THROW(node.run(node.wrongType, output, throwing(cancellation))) << node.name;
        EXPECT_TRUE(isEmptyObject(output));
        EXPECT_EQ(terminations.names(), std::vector<std::string>{node.name});
    }
    for (QueryNode const& node : queryNodes()) {
        const Terminations terminations;
        EXPECT_EQ(node.run(*Ostara::createObject(), throwing(cancellation)), node.defaults) << node.name;
        EXPECT_EQ(terminations.names(), std::vector<std::string>{node.name});
    }
}

TYPED_TEST(NodeFrame, of_a_query_leaves_the_defaults_when_it_is_cancelled_at_any_poll)
{
    for (QueryNode const& node : queryNodes()) {
        SCOPED_TRACE(node.name);
        std::optional<std::int64_t> polls;
        for (int threads : kThreadCounts) {
            Job job;
            Messages messages(&job);
            std::string outputs;
            const auto run = [&] {
                parallel::runJob(&job, threads, [&] { outputs = node.run(*this->sample_, messages.services()); });
            };
            run();
            EXPECT_NE(outputs, node.defaults);
            if (!polls) polls = job.pollCount();
            EXPECT_EQ(job.pollCount(), *polls);
            const std::string good = outputs;
            for (std::int64_t n = 1; n <= *polls; ++n) {
                SCOPED_TRACE("poll " + std::to_string(n));
                const Terminations terminations;
                job.reset();
                job.cancelAtPoll(n);
                run();
                EXPECT_EQ(outputs, node.defaults);
                EXPECT_EQ(terminations.names(),
                          n == 1 ? std::vector<std::string>() : std::vector<std::string>{node.name});
            }
            job.reset();
            run();
            EXPECT_EQ(outputs, good);
            EXPECT_EQ(messages.list(), List());
        }
    }
}

TEST(NodeFrame, of_a_query_leaves_the_defaults_for_the_wrong_type_and_says_so_once)
{
    for (QueryNode const& node : queryNodes())
        for (HostPtr const& input :
             {HostPtr(Ostara::createObject()), HostPtr(Corvid::makeMutable<Host>(getPointCloudPrototype()))}) {
            Messages messages;
            EXPECT_EQ(node.run(*input, messages.services()), node.defaults) << node.name;
            EXPECT_EQ(messages.list(), (List{{Severity::kError, "Input 'volume' is not a volume."}})) << node.name;
            // A cancelled job is asked first.
            Job job;
            job.cancel();
            Messages none(&job);
            EXPECT_EQ(node.run(*input, none.services()), node.defaults);
            EXPECT_EQ(none.list(), List());
        }
}

TEST(NodeFrame, of_a_query_on_a_volume_without_a_tree_leaves_the_defaults)
{
    for (QueryNode const& node : queryNodes()) {
        Messages messages;
        EXPECT_EQ(node.run(Host(getVolumePrototype()), messages.services()), node.defaults) << node.name;
        EXPECT_EQ(messages.list(), node.onMissingNative) << node.name;
        Host withoutTree(getVolumePrototype());
        withoutTree.native() = Corvid::makeMutable<Native>();
        Messages again;
        EXPECT_EQ(node.run(withoutTree, again.services()), node.defaults) << node.name;
        EXPECT_EQ(again.list(), node.onMissingNative) << node.name;
    }
}

TYPED_TEST(NodeFrame, measures_only_with_the_timer_of_the_table_and_writes_nothing_while_quiet)
{
    const VerboseLevel quiet(0);
    const CapturedStream out, errors(std::cerr);
    for (VolumeNode const& node : volumeNodes()) {
        Messages messages;
        HostPtr output;
        node.run(this->sample_, output, messages.services());
        const std::set<std::string> timers(messages.progress().begin(), messages.progress().end());
        std::set<std::string> expected(node.stageTimers.begin(), node.stageTimers.end());
        if (!node.timer.empty()) expected.insert(node.timer);
        EXPECT_EQ(timers, expected) << node.name;
    }
    for (QueryNode const& node : queryNodes()) {
        Messages messages;
        node.run(*this->sample_, messages.services());
        EXPECT_TRUE(messages.progress().empty()) << node.name;
    }
    EXPECT_EQ(out.text(), "");
    EXPECT_EQ(errors.text(), "");
}

}  // namespace
}  // namespace tilegrid::test
