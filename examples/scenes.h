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

/// The sum of rings around four centres.
ScalarPtr interference();

/// Smooth hills and hollows, for the gradient.
ScalarPtr hills();

/// A flow from left to right past eddies of alternating direction.
VectorPtr vortexStreet();

/// Fractal noise as the height of a landscape, mostly between -1 and 1.
ScalarPtr mountains();

/// A curve of steps, each a flat tread and a steep riser, along value = x from -1 to 1.
Quern::Ptr<Orvane::Math::FCurve> terraceCurve();

/// Stripes that noise has warped: 0 in the veins of the marble, up to 1 between them.
ScalarPtr marbleVeins();

/// A drop of rings, -1 to 1 inside it and -2 outside, advected by noise for a number of time steps.
ScalarPtr ink(int steps);

/// A blossom around the z axis with 6 petals. It is negative inside, but not a distance: its slope
/// varies from 0.5 to 1.2.
ScalarPtr blossom();

}  // namespace examples
