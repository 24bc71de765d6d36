#include "graph/error.h"
#include "graph/node_families.h"

namespace tilegrid::graph {

namespace {

std::optional<io::FinerBox> finerBox(Arguments const& arguments)
{
    std::vector<double> const& box = arguments.vector("inside");
    if (box.empty()) return {};
    if (box.size() != 6)
        throw UsageError("'inside' has " + std::to_string(box.size())
                         + " numbers: give xmin,ymin,zmin,xmax,ymax,zmax.");
    return io::FinerBox{{box[0], box[1], box[2]}, {box[3], box[4], box[5]}, int(arguments.integer("levels"))};
}

}  // namespace

std::optional<Ostara::Math::double3> vectorOfThree(Arguments const& arguments, std::string const& parameter,
                                                   bool oneForAll)
{
    std::vector<double> const& numbers = arguments.vector(parameter);
    if (numbers.empty()) return {};
    if (oneForAll && numbers.size() == 1) return Ostara::Math::double3(numbers[0]);
    if (numbers.size() != 3)
        throw UsageError("'" + parameter + "' has " + std::to_string(numbers.size())
                         + (numbers.size() == 1 ? " number" : " numbers") + ": give "
                         + (oneForAll ? "one, or three as x,y,z." : "three, as x,y,z."));
    return Ostara::Math::double3(numbers[0], numbers[1], numbers[2]);
}

std::vector<ParameterInfo> levelSetParameters(std::vector<std::string> const& onlyFor)
{
    return {
        {.name = "voxel",
         .type = ParameterType::kLength,
         .help = "size of a voxel of the band; outside of the box, if 'inside' gives one",
         .unit = "world units",
         .range = {.min = 0, .aboveMin = true},
         .onlyFor = onlyFor,
         .insteadOf = "voxels",
         .voxelsAllowed = false},
        {.name = "voxels",
         .type = ParameterType::kInt,
         .help = "how many of them lie along the longest side of the box around it",
         .range = {.min = 1, .max = 1e8},
         .onlyFor = onlyFor,
         .insteadOf = "voxel"},
        {.name = "band",
         .type = ParameterType::kLength,
         .help = "half width of the band around the surface",
         .unit = "voxels, or world units as in 0.1wu",
         .defaultText = "3",
         .range = {.min = 0, .aboveMin = true},
         .onlyFor = onlyFor,
         .bareUnit = LengthUnit::kVoxels},
        {.name = "inside",
         .type = ParameterType::kVector,
         .help = "box in which the band is finer: xmin,ymin,zmin,xmax,ymax,zmax; the tree is then graded",
         .unit = "world units",
         .defaultText = "",
         .onlyFor = onlyFor},
        {.name = "levels",
         .type = ParameterType::kInt,
         .help = "how many depths finer the box is: each divides the voxel size by 2, or by 5 in the quinary structure",
         .defaultText = "1",
         .range = {.min = 1, .max = 26},
         .onlyFor = onlyFor,
         .needs = "inside"},
        {.name = "graded",
         .type = ParameterType::kBool,
         .help = "whether to add tiles until those that touch differ by one level at most, with true distances as everywhere; "
                 "grade_volume, later, can only interpolate them",
         .defaultText = "false",
         .onlyFor = onlyFor},
    };
}

ParameterInfo structureParameter()
{
    return {.name = "structure",
            .type = ParameterType::kEnum,
            .help = "how tiles divide: 2 or 5 children per axis; a file of levels keeps its own",
            .defaultText = "binary",
            .choices = {"binary", "quinary"}};
}

io::Structure structureOf(Arguments const& arguments)
{
    return arguments.choice("structure") == 0 ? io::Structure::kBinary : io::Structure::kQuinary;
}

io::LevelSetOptions levelSetOptions(StepContext const& step, double longestSide)
{
    const Length band = step.arguments.length("band");
    const double voxel = step.arguments.has("voxels") ? longestSide / double(step.arguments.integer("voxels")) : step.arguments.length("voxel").value;
    io::LevelSetOptions options;
    options.voxelSize = float(voxel);
    options.bandVoxels = float(band.unit == LengthUnit::kVoxels ? band.value : band.value / voxel);
    options.structure = structureOf(step.arguments);
    options.maxBytes = step.maxBytes;
    options.finer = finerBox(step.arguments);
    options.graded = step.arguments.flag("graded");
    return options;
}

}  // namespace tilegrid::graph
