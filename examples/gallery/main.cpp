// Draws pictures of fields into a folder and prints the cost of each.

#include <tbb/task_arena.h>

#include <array>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <string>

#include "gallery/gallery.h"
#include "gallery/png_writer.h"
#include "output.h"

namespace {

struct Picture {
    char const* name;
    char const* title;
    examples::Image (*draw)(examples::Meter&);
};

constexpr std::array kPictures{
    Picture{"shapes", "shapes and what constructive geometry makes of them", examples::drawShapes},
    Picture{"gear", "a gear wheel out of bars and cylinders", examples::drawGear},
    Picture{"transforms", "one motif moved, stretched, mirrored, turned", examples::drawTransforms},
    Picture{"selection", "clamp, lerp, switch, mask, maximum, absolute", examples::drawSelection},
    Picture{"direction", "a vector field: streaks along it, hue by direction",
            examples::drawDirection},
    Picture{"gradient", "a scalar field and its gradient", examples::drawGradient},
    Picture{"solids", "implicit solids, sphere-traced and lit by their gradients",
            examples::drawSolids},
    Picture{"waves", "interference, and a spiral in polar angle", examples::drawWaves},
    Picture{"noise", "one layer of noise, fractal sums of layers, ridges", examples::drawNoise},
    Picture{"turbulence", "divergence-free noise, one layer and a fractal sum",
            examples::drawTurbulence},
    Picture{"plume", "stream lines of a jet that turns turbulent", examples::drawPlume},
    Picture{"warp", "regular patterns, and the same looked up at displaced positions",
            examples::drawWarp},
    Picture{"advection", "rings carried along by a flow, step after step", examples::drawAdvection},
    Picture{"closest", "paths to the closest points of a surface, and a pattern looked up there",
            examples::drawClosest},
    Picture{"remap", "heights of a landscape sent through curves", examples::drawRemap},
    Picture{"volume", "slices of an adaptive volume with its tiles, displaced by noise",
            examples::drawVolume},
    Picture{"volume_solids", "the same volume, sphere-traced by each of the three samplers",
            examples::drawVolumeSolids},
    Picture{"samplers", "a coarse volume magnified: the three samplers across a jump of resolution",
            examples::drawSamplers},
    Picture{"discs", "discs whose centers and radii are properties of an object",
            examples::drawDiscs},
};

double nanosecondsAPoint(examples::Meter::Tally const& tally) {
    return tally.points > 0 ? tally.nanoseconds / static_cast<double>(tally.points) : 0;
}

void draw(Picture const& picture, std::filesystem::path const& folder) {
    examples::Meter meter;
    examples::Image const image = picture.draw(meter);
    std::string const file = std::string(picture.name) + ".png";
    examples::writePng(folder / file, image);

    auto const& values = meter.valuesDone();
    std::printf("%-15s %9lld points %6.1f ns/point", file.c_str(), values.points,
                nanosecondsAPoint(values));
    if (auto const& gradients = meter.gradientsDone(); gradients.points > 0)
        std::printf(", %7lld gradients %6.1f ns/gradient", gradients.points,
                    nanosecondsAPoint(gradients));
    std::printf(", %d threads: %s\n", tbb::this_task_arena::max_concurrency(), picture.title);
    std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc > 2 || (argc == 2 && argv[1][0] == '-')) {
        std::fprintf(stderr, "usage: %s [FOLDER]\n", argv[0]);
        return 2;
    }
    try {
        auto const folder = std::filesystem::absolute(argc == 2 ? argv[1] : "gallery");
        std::filesystem::create_directories(folder);
        for (Picture const& picture : kPictures) draw(picture, folder);
        std::printf("pictures in %s\n", folder.c_str());
        return examples::finish(argv[0]);
    } catch (std::exception const& error) {
        std::fprintf(stderr, "%s: %s\n", argv[0], error.what());
        return 2;
    }
}
