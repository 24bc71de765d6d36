#include "TilegridOps/host/geometry.h"
#include "io/attributes.h"
#include "io/error.h"
#include "io/points.h"
#include "io/vdb.h"
#include "support/files.h"
#include "support/structures.h"

#include <algorithm>
#include <array>
#include <cmath>

namespace tilegrid::test {
namespace {

using Ostara::Geometry::sPointPosition;
using Ostara::Math::float3;
using Places = Corvid::Array<float3>;
using Floats = Corvid::Array<float>;

Corvid::MutablePtr<Ostara::Object> someCloud(int count)
{
    Random random(3);
    const auto number = [&] { return float(random.between(-1000000, 1000000)) / 7919.0f; };
    Places places, velocity;
    Floats radius, heat;
    for (int n = 0; n < count; ++n) {
        const float x = number(), y = number(), z = number();
        places.push_back({x, y, z});
        velocity.push_back({z, x, y});
        radius.push_back(std::abs(number()));
        heat.push_back(0.5f * float((n * 37) % count));  // all different, for any count that 37 does not divide
    }
    auto cloud = Corvid::makeMutable<Ostara::Object>(Ostara::Geometry::getPointCloudPrototype());
    cloud->set(sPointPosition, places);
    cloud->set(Corvid::String("point_radius"), radius);
    cloud->set(Corvid::String("heat"), heat);
    cloud->set(Corvid::String("velocity"), velocity);
    cloud->set(Corvid::String("normal"), velocity);
    return cloud;
}
template <class T> Corvid::Array<T> const& arrayOf(Ostara::Object const& cloud, char const* name)
{
    static const Corvid::Array<T> none;
    auto const* array = cloud.get<Corvid::Array<T>>(name);
    EXPECT_TRUE(array) << name;
    return array ? *array : none;
}
Places const& positionsOf(Ostara::Object const& cloud) { return arrayOf<float3>(cloud, sPointPosition.c_str()); }

TEST(Points, in_tables_read_back_with_all_bits)
{
    const TestFolder folder;
    KeptMessages messages;
    for (char const* name : {"points.csv", "points.ply"})
        for (int count : {0, 1, 500}) {
            const auto cloud = someCloud(count);
            io::writePoints(folder.file(name), *cloud, messages.services());
            EXPECT_TRUE(io::holdsPoints(folder.file(name)));
            const auto back = io::readPoints(folder.file(name), 0);
            EXPECT_TRUE(io::isPointCloud(*back));
            EXPECT_EQ(back->entries().size(), 5u);
            EXPECT_TRUE(positionsOf(*back) == positionsOf(*cloud)) << name;
            for (char const* attribute : {"point_radius", "heat"}) EXPECT_TRUE(arrayOf<float>(*back, attribute) == arrayOf<float>(*cloud, attribute));
            for (char const* attribute : {"velocity", "normal"}) EXPECT_TRUE(arrayOf<float3>(*back, attribute) == arrayOf<float3>(*cloud, attribute));
        }
    EXPECT_TRUE(messages.texts().empty());
    EXPECT_EQ(folder.fileCount(), 2u) << "nothing temporary is left";
}

TEST(Points, in_a_vdb_file_read_back_in_another_order)
{
    const TestFolder folder;
    KeptMessages messages;
    for (int count : {0, 1, 500}) {
        const auto cloud = someCloud(count);
        io::writePoints(folder.file("points.vdb"), *cloud, messages.services());
        const auto volumes = io::readVdb(folder.file("points.vdb"), {}, messages.services());
        ASSERT_EQ(volumes.size(), 1u);
        Ostara::Object const& back = *volumes[0].volume;
        EXPECT_TRUE(io::isPointCloud(back));
        ASSERT_EQ(positionsOf(back).size(), std::size_t(count));
        if (count == 0) continue;
        // Heat tells the points apart.
        const auto order = [](Ostara::Object const& object) {
            std::vector<std::size_t> places(positionsOf(object).size());
            for (std::size_t n = 0; n < places.size(); ++n) places[n] = n;
            auto const& heat = arrayOf<float>(object, "heat");
            std::sort(places.begin(), places.end(), [&heat](std::size_t a, std::size_t b) { return heat[a] < heat[b]; });
            return places;
        };
        const auto from = order(*cloud), to = order(back);
        for (std::size_t n = 0; n < from.size(); ++n) {
            EXPECT_LE(length(positionsOf(*cloud)[from[n]] - positionsOf(back)[to[n]]), 1e-4f);
            EXPECT_EQ(arrayOf<float>(*cloud, "heat")[from[n]], arrayOf<float>(back, "heat")[to[n]]);
            EXPECT_EQ(arrayOf<float>(*cloud, "point_radius")[from[n]], arrayOf<float>(back, "point_radius")[to[n]]);
            EXPECT_EQ(length(arrayOf<float3>(*cloud, "velocity")[from[n]] - arrayOf<float3>(back, "velocity")[to[n]]), 0.0f);
        }
    }
    EXPECT_TRUE(messages.texts().empty());
}

TEST(Points, equal_clouds_give_equal_files)
{
    const TestFolder folder;
    KeptMessages messages;
    for (char const* ending : {".csv", ".ply", ".vdb"}) {
        io::writePoints(folder.file(std::string("a") + ending), *someCloud(300), messages.services());
        io::writePoints(folder.file(std::string("b") + ending), *someCloud(300), messages.services());
        EXPECT_TRUE(folder.read(std::string("a") + ending) == folder.read(std::string("b") + ending)) << ending;
    }
}

TEST(Points, in_text_may_lack_names_and_have_remarks)
{
    const TestFolder folder;
    const auto plain = io::readPoints(folder.write("plain.csv", "# a remark\n1,2,3\r\n\n -4 , 5e0,+6\n"), 0);
    ASSERT_EQ(positionsOf(*plain).size(), 2u);
    EXPECT_EQ(positionsOf(*plain)[1].x, -4.0f);
    EXPECT_EQ(plain->entries().size(), 1u);
    const auto round = io::readPoints(folder.write("round.csv", "1,2,3,0.5"), 0);
    EXPECT_EQ(arrayOf<float>(*round, "point_radius")[0], 0.5f);
    const auto named = io::readPoints(folder.write("named.csv", "heat,z,y,x,w_x,w_y\n7,3,2,1,8,9\n"), 0);
    EXPECT_EQ(positionsOf(*named)[0].x, 1.0f);
    EXPECT_EQ(arrayOf<float>(*named, "heat")[0], 7.0f);
    EXPECT_EQ(arrayOf<float>(*named, "w_x")[0], 8.0f) << "two columns are no vector";
}

TEST(Points, in_ply_files_of_other_programs_are_found_by_their_content)
{
    const TestFolder folder;
    const std::string head = "ply\nformat ascii 1.0\ncomment made by hand\n";
    const std::string points = folder.write("points.ply", head + "element camera 1\nproperty list uchar float view\nelement vertex 2\nproperty double x\n"
                                                                 "property double y\nproperty double z\nproperty uchar red\nend_header\n"
                                                                 "2 0.5 0.5\n1 2 3 255\n4 5 6 0\n");
    EXPECT_TRUE(io::holdsPoints(points));
    const auto cloud = io::readPoints(points, 0);
    ASSERT_EQ(positionsOf(*cloud).size(), 2u);
    EXPECT_EQ(positionsOf(*cloud)[1].z, 6.0f);
    EXPECT_EQ(arrayOf<float>(*cloud, "red")[0], 255.0f);
    EXPECT_FALSE(io::holdsPoints(folder.write("mesh.ply", head + "element vertex 3\nproperty float x\nproperty float y\nproperty float z\nelement face 1\n"
                                                                 "property list uchar int vertex_indices\nend_header\n0 0 0\n1 0 0\n0 1 0\n3 0 1 2\n")));
    EXPECT_TRUE(io::holdsPoints(folder.write("none.ply", head + "element vertex 1\nproperty float x\nproperty float y\nproperty float z\nelement face 0\n"
                                                                "property list uchar int vertex_indices\nend_header\n0 0 0\n")));
    EXPECT_FALSE(io::holdsPoints(folder.write("broken.ply", "plx")));
    EXPECT_FALSE(io::holdsPoints(folder.file("missing.ply")));
}

TEST(Points, colours_of_eight_bits_survive_every_format)
{
    const TestFolder folder;
    KeptMessages messages;
    std::string text = "ply\nformat ascii 1.0\nelement vertex 256\nproperty float x\nproperty float y\nproperty float z\nproperty float heat\nproperty uchar red\n"
                       "property uchar green\nproperty uchar blue\nproperty uchar alpha\nend_header\n";
    const auto codes = [](int n) { return std::array<int, 4>{n, 255 - n, (n * 7) % 256, (n * 3) % 256}; };
    for (int n = 0; n < 256; ++n) {
        text += std::to_string(n % 16) + " " + std::to_string(n / 16) + " 0 " + std::to_string(n) + ".5";
        for (int code : codes(n)) text += " " + std::to_string(code);
        text += "\n";
    }
    auto read = io::readPoints(folder.write("a.ply", text), 0);
    const auto cloud = Corvid::toMutable(read);
    EXPECT_EQ(cloud->entries().size(), 4u) << "place, heat, color, alpha";
    const auto check = [&](Ostara::Object const& points) {
        auto const& colors = arrayOf<float3>(points, "color");
        auto const &heat = arrayOf<float>(points, "heat"), &alpha = arrayOf<float>(points, "alpha");
        ASSERT_EQ(colors.size(), 256u);
        for (std::size_t at = 0; at < 256; ++at) {
            const auto code = codes(int(heat[at]));
            for (int c = 0; c < 3; ++c) ASSERT_EQ(int(io::srgbByte(colors[at][c])), code[std::size_t(c)]);
            ASSERT_EQ(int(io::byteOf(alpha[at])), code[3]);
        }
    };
    check(*cloud);
    io::writePoints(folder.file("b.ply"), *cloud, messages.services());
    EXPECT_TRUE(contains(folder.read("b.ply"), "property uchar red\nproperty uchar green\nproperty uchar blue\n"));
    io::writePoints(folder.file("b.csv"), *cloud, messages.services());
    io::writePoints(folder.file("b.vdb"), *cloud, messages.services());
    check(*io::readPoints(folder.file("b.ply"), 0));
    check(*io::readPoints(folder.file("b.csv"), 0));
    check(*io::readVdb(folder.file("b.vdb"), {}, messages.services())[0].volume);
    // Other programs call them Cd.
    cloud->set(Corvid::String("Cd"), arrayOf<float3>(*cloud, "color"));
    cloud->entries().erase(Corvid::String("color"));
    io::writePoints(folder.file("d.vdb"), *cloud, messages.services());
    check(*io::readVdb(folder.file("d.vdb"), {}, messages.services())[0].volume);
    // A second time the bytes are the same.
    io::writePoints(folder.file("c.ply"), *io::readPoints(folder.file("b.ply"), 0), messages.services());
    EXPECT_TRUE(folder.read("c.ply") == folder.read("b.ply"));
}

TEST(Points, that_cannot_be_read_are_refused_with_the_place)
{
    const TestFolder folder;
    const auto problem = [&](std::string const& name, std::string const& content) {
        const std::string file = folder.write(name, content);
        return errorOf<io::InputError>([&] { io::readPoints(file, 0); });
    };
    EXPECT_TRUE(contains(problem("a.csv", "x,y,z\n1,2,3\n1,nan,3\n"), "line 3: 'nan' is not a finite number"));
    EXPECT_TRUE(contains(problem("b.csv", "x,y,z\n1,1e39,3\n"), "line 2: '1e39'"));
    EXPECT_TRUE(contains(problem("c.csv", "x,y,z\n1,2\n"), "line 2: it has 2 values for 3 columns"));
    EXPECT_TRUE(contains(problem("d.csv", "x,y,z\n1,two,3\n"), "line 2: 'two'"));
    EXPECT_TRUE(contains(problem("e.csv", "x,y\n1,2\n"), "no columns x, y and z"));
    EXPECT_TRUE(contains(problem("f.csv", "x,y,z,x\n1,2,3,4\n"), "two columns have the name 'x'"));
    EXPECT_TRUE(contains(problem("g.csv", "1,2,3,4,5\n"), "begin with a row of names"));
    EXPECT_TRUE(contains(problem("h.csv", ""), "the file is empty"));
    EXPECT_TRUE(contains(problem("i.csv", "x,y,,z\n"), "column 3 has no name"));
    EXPECT_TRUE(contains(problem("j.csv", "x,y,z,point_position\n1,2,3,4\n"), "columns give the attribute 'point_position' twice"));
    EXPECT_TRUE(contains(problem("k.csv", "x,y,z,radius,point_radius\n1,2,3,4,5\n"), "'point_radius' twice"));
    const std::string head = "ply\nformat binary_little_endian 1.0\nelement vertex 2\nproperty float x\nproperty float y\nproperty float z\nend_header\n";
    EXPECT_TRUE(contains(problem("a.ply", head + std::string(20, '\0')), "and only 20 bytes follow") ||
                contains(problem("a.ply", head + std::string(20, '\0')), "the file ends in number 2"));
    EXPECT_TRUE(contains(problem("b.ply", head + std::string(12, '\0') + std::string(12, '\xff')), "point 2 has a 'x' that is not a finite number"));
    EXPECT_TRUE(contains(problem("c.ply", "ply\nformat ascii 1.0\nelement vertex 4000000000000000000\nproperty float x\nend_header\n1\n"), "bytes follow"));
    EXPECT_TRUE(contains(problem("d.ply", "ply\nformat ascii 1.0\nelement edge 1\nproperty int a\nend_header\n1\n"), "no element 'vertex'"));
    EXPECT_TRUE(contains(problem("a.xyz", "1,2,3"), ".csv, .ply and .vdb"));
    EXPECT_TRUE(contains(errorOf<io::InputError>([&] { io::readPoints(folder.file("missing.csv"), 0); }), "there is no such file"));
    const std::string many = folder.write("many.csv", "1,2,3\n4,5,6\n");
    EXPECT_TRUE(contains(errorOf<io::InputError>([&] { io::readPoints(many, 23); }), "limit"));
}

TEST(Points, that_cannot_be_written_leave_the_old_file)
{
    const TestFolder folder;
    KeptMessages messages;
    const auto problem = [&](std::string const& name, auto change) {
        folder.write(name, "old");
        const auto cloud = someCloud(4);
        change(*cloud);
        const std::string text = errorOf<io::InputError>([&] { io::writePoints(folder.file(name), *cloud, messages.services()); });
        EXPECT_EQ(folder.read(name), "old");
        return text;
    };
    const auto wrongLength = [](Ostara::Object& cloud) { cloud.set(Corvid::String("heat"), Floats(std::size_t(3))); };
    const auto noPositions = [](Ostara::Object& cloud) { cloud.entries().erase(sPointPosition); };
    for (char const* name : {"a.csv", "a.ply", "a.vdb"}) {
        EXPECT_TRUE(contains(problem(name, wrongLength), "attribute 'heat' has 3 values for 4 points")) << name;
        EXPECT_TRUE(contains(problem(name, noPositions), "no positions")) << name;
    }
    EXPECT_TRUE(contains(problem("b.vdb", [](Ostara::Object& cloud) { cloud.set(sPointPosition, Places(std::size_t(4), float3(NAN, 0, 0))); }), "not finite"));
    EXPECT_TRUE(contains(problem("c.csv", [](Ostara::Object& cloud) { cloud.set(Corvid::String("a,b"), Floats(std::size_t(4))); }), "cannot stand in a .csv"));
    EXPECT_TRUE(contains(problem("c.ply", [](Ostara::Object& cloud) { cloud.set(Corvid::String("a b"), Floats(std::size_t(4))); }), "cannot stand in a .ply"));
    for (char blank : {'\t', '\v', '\f', '\r', '\n'}) {
        const auto rename = [blank](Ostara::Object& cloud) { cloud.set(Corvid::String(std::string("a") + blank + "b"), Floats(std::size_t(4))); };
        EXPECT_TRUE(contains(problem("e.ply", rename), "cannot stand in a .ply")) << int(blank);
    }
    EXPECT_TRUE(contains(problem("d.obj", [](Ostara::Object&) {}), ".csv, .ply or .vdb"));
}

TEST(Points, attributes_of_other_types_are_left_out_with_a_warning)
{
    const TestFolder folder;
    KeptMessages messages;
    const auto cloud = someCloud(3);
    cloud->set(Corvid::String("count"), Corvid::Array<int>(std::size_t(3)));
    io::writePoints(folder.file("a.csv"), *cloud, messages.services());
    EXPECT_TRUE(messages.mention("attribute 'count' is left out"));
    EXPECT_EQ(io::readPoints(folder.file("a.csv"), 0)->entries().size(), 5u);
}

}  // namespace
}  // namespace tilegrid::test
