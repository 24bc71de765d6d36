// Every writer against a disk that takes only a part of the file.
#include "TilegridOps/host/geometry.h"
#include "io/error.h"
#include "io/image.h"
#include "io/level_set_from_shape.h"
#include "io/points.h"
#include "io/vdb.h"
#include "support/files.h"
#include "support/meshes.h"
#include "support/structures.h"

#include <sys/resource.h>

#include <csignal>
#include <functional>

namespace tilegrid::test {
namespace {

using Ostara::Math::float3;

/// While it lives, no file of this process can grow beyond `bytes`: writing on fails as on a full disk, with another reason.
class FileLimit {
public:
    explicit FileLimit(rlim_t bytes) : handler_(std::signal(SIGXFSZ, SIG_IGN))
    {
        getrlimit(RLIMIT_FSIZE, &old_);
        const rlimit limit{bytes, old_.rlim_max};
        EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
    }
    FileLimit(FileLimit const&) = delete;
    FileLimit& operator=(FileLimit const&) = delete;
    ~FileLimit()
    {
        setrlimit(RLIMIT_FSIZE, &old_);
        std::signal(SIGXFSZ, handler_);
    }

private:
    void (*handler_)(int);
    rlimit old_{};
};

Corvid::Ptr<Ostara::Object> cloud(int count)
{
    Random random(7);
    const auto number = [&random] { return float(random.between(-1000000, 1000000)) / 7919.0f; };
    Corvid::Array<float3> places;
    for (int n = 0; n < count; ++n) {
        const float x = number(), y = number(), z = number();
        places.push_back({x, y, z});
    }
    auto points = Corvid::makeMutable<Ostara::Object>(Ostara::Geometry::getPointCloudPrototype());
    points->set(Ostara::Geometry::sPointPosition, places);
    return points;
}

io::Image noise(int size)
{
    Random random(11);
    io::Image image{size, size, {}};
    for (int n = 0; n < 3 * size * size; ++n) image.rgb.push_back(std::uint8_t(random.between(0, 255)));
    return image;
}

Corvid::Ptr<Ostara::Object> sphere(float voxelSize)
{
    io::LevelSetOptions options;
    options.voxelSize = voxelSize;
    return io::levelSetFromShape(io::Sphere{{}, 1.0}, options);
}

struct Writer {
    char const* file;
    std::function<void(std::string const& path)> write;
};

/// Each writes some hundred KiB.
std::vector<Writer> writers()
{
    const auto mesh = std::make_shared<io::TriangleMesh>(sphereMesh(1.0f, 5));
    const auto points = cloud(15000);
    const auto volume = sphere(0.05f);
    return {
        {"mesh.ply", [mesh](std::string const& path) { io::writeMesh(path, *mesh); }},
        {"mesh.obj", [mesh](std::string const& path) { io::writeMesh(path, *mesh); }},
        {"points.ply", [points](std::string const& path) { io::writePoints(path, *points, {}); }},
        {"points.csv", [points](std::string const& path) { io::writePoints(path, *points, {}); }},
        {"points.vdb", [points](std::string const& path) { io::writePoints(path, *points, {}); }},
        {"picture.png", [image = noise(280)](std::string const& path) { io::writePng(path, image); }},
        {"flat.vdb", [volume](std::string const& path) { io::writeVdb(path, *volume, {}, io::VdbLayout::kFlat); }},
        {"levels.vdb", [volume](std::string const& path) { io::writeVdb(path, *volume, {}, io::VdbLayout::kLevels); }}};
}

TEST(FileLimit, at_any_place_of_a_file_leaves_the_old_one_and_tells_the_reason)
{
    constexpr std::size_t kStep = 4096;
    const TestFolder folder;
    for (Writer const& writer : writers()) {
        SCOPED_TRACE(writer.file);
        writer.write(folder.file("whole" + std::string(writer.file)));
        const std::size_t size = folder.read("whole" + std::string(writer.file)).size();
        EXPECT_GE(size, 32 * kStep);
        folder.write(writer.file, "old");
        const std::size_t files = folder.fileCount();
        for (std::size_t limit = 0; limit < size; limit += kStep) {
            SCOPED_TRACE(limit);
            std::string error;
            try {
                const FileLimit limited(limit);
                writer.write(folder.file(writer.file));
                error = "none";
            } catch (io::InputError const& thrown) {
                error = thrown.what();
            }
            ASSERT_TRUE(contains(error, "File too large") && contains(error, folder.file(writer.file))) << error;
            ASSERT_EQ(folder.read(writer.file), "old");
            ASSERT_EQ(folder.fileCount(), files);
        }
        const FileLimit enough(size);
        writer.write(folder.file(writer.file));
        EXPECT_TRUE(folder.read(writer.file) == folder.read("whole" + std::string(writer.file)))
            << "equal content gives equal files";
    }
}

}  // namespace
}  // namespace tilegrid::test
