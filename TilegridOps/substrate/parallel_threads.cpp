#include "TilegridOps/substrate/parallel.h"

#include <condition_variable>
#include <cstdlib>
#include <exception>
#include <mutex>
#include <system_error>
#include <thread>

/// The back end for finding what depends on the schedule. Plain threads, which the thread sanitizer sees through; and a
/// schedule that comes from a seed (environment variable TILEGRID_ORDER_SEED, a number): where a range is cut, in which order
/// its parts run, and on which thread. It aims at showing mistakes, not at speed.
///
/// When a group of tasks opens, they are dealt at once to the caller and to workers that are idle at that moment; nobody
/// takes more later. So a thread inside a body gets work of its own inner groups only, nobody ever waits for a thread that
/// waits for him, and the threads of a group exchange nothing before its end: two of its tasks on different threads are
/// unordered to the sanitizer, even if they ran one after the other.
namespace tilegrid::parallel {

namespace {

// Parts of a loop for each thread: enough for many orders, few enough to stay cheap.
constexpr int64 kPartsPerThread = 6;

std::uint64_t mixed(std::uint64_t x)
{
    // Finalizer of SplitMix64 (Steele, Lea, Flood 2014).
    x += 0x9e3779b97f4a7c15u;
    x = (x ^ x >> 30) * 0xbf58476d1ce4e5b9u;
    x = (x ^ x >> 27) * 0x94d049bb133111ebu;
    return x ^ x >> 31;
}

/// Numbers for one task. Those of inner tasks follow from them, so that the schedule does not hang on who was faster.
class Random {
public:
    explicit Random(std::uint64_t seed) : state_(mixed(seed)) {}
    std::uint64_t next() { return state_ = mixed(state_); }
    /// 0 to n - 1. The slight preference for small results does not matter here.
    int64 below(int64 n) { return static_cast<int64>(next() % static_cast<std::uint64_t>(n)); }
    template <class T> void shuffle(std::vector<T>& values)
    {
        for (int64 n = static_cast<int64>(values.size()); n > 1; --n) std::swap(values[n - 1], values[below(n)]);
    }

private:
    std::uint64_t state_;
};

std::uint64_t orderSeed()
{
    static const std::uint64_t seed = [] {
        char const* wish = std::getenv("TILEGRID_ORDER_SEED");
        return wish ? std::strtoull(wish, nullptr, 10) : 1;
    }();
    return seed;
}

/// Tasks that run together. Task order[n] goes to thread n % sharers.
struct Group {
    Group(FunctionRef<void(int64)> work, std::uint64_t ownSeed) : task(work), job(Job::current()), seed(ownSeed) {}

    FunctionRef<void(int64)> task;
    Job* job;
    std::uint64_t seed;
    std::vector<int64> order;
    std::size_t sharers = 1;
    /// Whether tasks that have not begun are dropped. Relaxed: it carries no data, and must not order the tasks.
    std::atomic<bool> stopped{false};
    /// Guarded by the team's mutex.
    std::size_t helpers = 0;
    std::exception_ptr error;
    std::condition_variable helpersLeft;
};

class Team;

/// Where a thread stands.
struct Place {
    Team* team = nullptr;
    int slot = 0;
    /// The group whose task it runs.
    Group* group = nullptr;
    Random random{orderSeed()};
};
thread_local Place place;

/// While it lives, the calling thread stands elsewhere.
class AtPlace {
public:
    explicit AtPlace(Place const& there) : previous_(place) { place = there; }
    AtPlace(AtPlace const&) = delete;
    AtPlace& operator=(AtPlace const&) = delete;
    ~AtPlace() { place = previous_; }

private:
    Place previous_;
};

/// The threads of one job: slot 0 is whoever brings work, the others are workers that live as long as the team.
class Team {
public:
    explicit Team(int threads) : size_(std::max(threads, 1)) {}
    Team(Team const&) = delete;
    Team& operator=(Team const&) = delete;
    ~Team()
    {
        {
            const std::lock_guard lock(mutex_);
            ending_ = true;
        }
        for (auto& worker : workers_) worker->wake.notify_one();
        for (auto& worker : workers_) worker->thread.join();
    }

    int size() const { return size_; }

    /// Runs `task(0)` to `task(count - 1)` in some order and waits for them.
    void run(int64 count, FunctionRef<void(int64)> task)
    {
        Group group(task, place.random.next());
        Random random(group.seed);
        for (int64 n = 0; n < count; ++n) group.order.push_back(n);
        random.shuffle(group.order);
        deal(group, random);
        runShare(group, 0, place.slot);
        {
            std::unique_lock lock(mutex_);
            group.helpersLeft.wait(lock, [&group] { return group.helpers == 0; });
        }
        if (group.error) std::rethrow_exception(group.error);
    }

private:
    struct Worker {
        int slot = 0;
        std::condition_variable wake;
        /// What it was dealt, null while it is idle.
        Group* group = nullptr;
        std::size_t share = 0;
        std::thread thread;
    };

    /// Gives every task to the caller (share 0) or to an idle worker.
    void deal(Group& group, Random& random)
    {
        const std::lock_guard lock(mutex_);
        if (workers_.empty()) startWorkers();
        std::vector<Worker*> idle;
        for (auto& worker : workers_)
            if (!worker->group) idle.push_back(worker.get());
        random.shuffle(idle);
        idle.resize(std::min(idle.size(), group.order.size() - 1));
        group.sharers = idle.size() + 1;
        group.helpers = idle.size();
        for (std::size_t n = 0; n < idle.size(); ++n) {
            idle[n]->group = &group;
            idle[n]->share = n + 1;
            idle[n]->wake.notify_one();
        }
    }

    /// On first use, since many jobs have no parallel work. A system without threads to give leaves a smaller team.
    void startWorkers()
    {
        try {
            workers_.reserve(static_cast<std::size_t>(size_) - 1);
            for (int slot = 1; slot < size_; ++slot) {
                auto worker = std::make_unique<Worker>();
                worker->slot = slot;
                worker->thread = std::thread([this, mine = worker.get()] { serve(*mine); });
                workers_.push_back(std::move(worker));
            }
        } catch (std::system_error const&) {
        }
    }

    void serve(Worker& mine)
    {
        std::unique_lock lock(mutex_);
        while (true) {
            mine.wake.wait(lock, [&] { return ending_ || mine.group; });
            if (!mine.group) return;
            Group& group = *mine.group;
            lock.unlock();
            runShare(group, mine.share, mine.slot);
            lock.lock();
            // In one step with the report: who opens the next group finds this worker idle.
            mine.group = nullptr;
            if (--group.helpers == 0) group.helpersLeft.notify_one();
        }
    }

    void runShare(Group& group, std::size_t share, int slot)
    {
        const Job::Scope scope(group.job);
        try {
            for (std::size_t n = share; n < group.order.size() && !group.stopped.load(std::memory_order_relaxed); n += group.sharers) {
                const int64 task = group.order[n];
                const AtPlace there({this, slot, &group, Random(group.seed + static_cast<std::uint64_t>(task))});
                group.task(task);
            }
        } catch (...) {
            group.stopped.store(true, std::memory_order_relaxed);
            const std::lock_guard lock(mutex_);
            if (!group.error) group.error = std::current_exception();
        }
    }

    const int size_;
    std::mutex mutex_;
    bool ending_ = false;
    std::vector<std::unique_ptr<Worker>> workers_;
};

int defaultThreads()
{
    return static_cast<int>(std::max(std::thread::hardware_concurrency(), 1u));
}

/// The team of the calling thread; outside of all jobs one that all threads share, each as slot 0 of its own groups.
Team& currentTeam()
{
    if (place.team) return *place.team;
    static Team outsideOfJobs(defaultThreads());
    return outsideOfJobs;
}

/// Ends of the parts of [begin, end): at random places, every part at least `grain` long.
std::vector<int64> partEnds(int64 begin, int64 end, int64 grain, int64 mostParts)
{
    const int64 most = std::min((end - begin) / grain, mostParts);
    const int64 parts = most - place.random.below(most / 2 + 1);
    const int64 spare = end - begin - parts * grain;
    std::vector<int64> ends;
    for (int64 n = 1; n < parts; ++n) ends.push_back(place.random.below(spare + 1));
    std::sort(ends.begin(), ends.end());
    for (int64 n = 1; n < parts; ++n) ends[n - 1] += begin + n * grain;
    ends.push_back(end);
    return ends;
}

void reduceHalves(int64 begin, int64 end, int64 grain, ReduceBody& body)
{
    if (end - begin <= grain) return body.run(begin, end);
    const int64 middle = begin + (end - begin) / 2;
    const std::unique_ptr<ReduceBody> right = body.split();
    currentTeam().run(2, [&](int64 half) {
        if (half == 0)
            reduceHalves(begin, middle, grain, body);
        else
            reduceHalves(middle, end, grain, *right);
    });
    body.join(*right);
}

}  // namespace

int maxSlots()
{
    return currentTeam().size();
}

int currentSlot()
{
    return place.slot;
}

void forRanges(int64 begin, int64 end, int64 grain, FunctionRef<void(int64, int64)> body)
{
    if (begin >= end) return;
    grain = std::max<int64>(grain, 1);
    if (end - begin < 2 * grain) return body(begin, end);
    Team& team = currentTeam();
    const std::vector<int64> ends = partEnds(begin, end, grain, kPartsPerThread * std::max(team.size(), 2));
    team.run(static_cast<int64>(ends.size()), [&](int64 part) { body(part == 0 ? begin : ends[part - 1], ends[part]); });
}

void deterministicReduce(int64 begin, int64 end, int64 grain, ReduceBody& body)
{
    if (begin < end) reduceHalves(begin, end, std::max<int64>(grain, 1), body);
}

void cancelCurrentGroup()
{
    if (place.group) place.group->stopped.store(true, std::memory_order_relaxed);
}

void runJob(Job* job, int threads, FunctionRef<void()> work)
{
    Team team(threads > 0 ? threads : defaultThreads());
    const AtPlace there({&team, 0, nullptr, Random(orderSeed())});
    const Job::Scope scope(job);
    work();
}

}  // namespace tilegrid::parallel
