#pragma once

#include <span>
#include <string_view>

#include "trees.h"

// The fields that the example programs share.
namespace examples {

struct Scene {
    std::string_view name;
    std::string_view title;
    ScalarPtr (*make)();
};

/// All scalar scenes, in the order in which they are listed to users.
std::span<Scene const> scenes();

/// The scene of that name, or null.
Scene const* findScene(std::string_view name);

/// The outline of a gear wheel, the same for all z; its outer radius is 1.
ScalarPtr gearProfile();

/// A ball of radius 1 made of the walls of a gyroid, the surface
/// sin x cos y + sin y cos z + sin z cos x = 0.
ScalarPtr gyroidBall();

/// Three solids, and the floor on which they stand.
struct Solids {
    ScalarPtr floor, gear, die, ball;
};
Solids solids();

/// Rings that run out from four centres and add up.
ScalarPtr interference();

/// Smooth hills and hollows, for the gradient.
ScalarPtr hills();

/// A flow from left to right past eddies that turn by turns either way.
VectorPtr vortexStreet();

/// Fractal noise as the height of a landscape; most of it lies between -1 and 1.
ScalarPtr mountains();

/// A curve of steps, each a flat tread and a steep riser, along value = x from -1 to 1.
Quern::Ptr<Orvane::Math::FCurve> terraceCurve();

/// Veins, where it is 0, in between up to 1: stripes that noise has warped.
ScalarPtr marbleVeins();

/// A drop of rings, -1 to 1 inside it and less outside, carried along by noise for that many steps
/// of time.
ScalarPtr ink(int steps);

/// A blossom around the z axis with 6 petals. Negative inside, but no distance: the slope is 0.5 to
/// 1.2, from place to place.
ScalarPtr blossom();

}  // namespace examples
