// The program zel: parses the command line, runs a subcommand, and reports its error.

#include <fcntl.h>
#include <tbb/global_control.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <functional>
#include <new>

#include <zel/field/stopped.h>
#include <zel/version.h>

#include "commands.h"
#include "session.h"

namespace {

using command::SceneOptions;

/// Refuses text that is no float of the class. The validators of CLI11 take NaN for any number, and
/// show the largest double in their messages.
CLI::Validator floatThat(bool (*isGood)(float number), char const* kind) {
    return {[isGood, kind](std::string const& text) {
                char* end = nullptr;
                float const number = std::strtof(text.c_str(), &end);
                if (end != text.c_str() && *end == '\0' && isGood(number)) return std::string();
                return std::string("wanted a ") + kind + ", found " + text;
            },
            ""};
}

CLI::Validator isFinite() {
    return floatThat([](float number) { return std::isfinite(number); }, "finite number");
}

CLI::Validator isPositive() {
    return floatThat([](float number) { return number > 0 && std::isfinite(number); },
                     "number above 0");
}

void addScene(CLI::App& app, std::string& scene) {
    app.add_option("SCENE", scene, "file of a scene in JSON, - for standard input")->required();
}

void addScene(CLI::App& app, SceneOptions& options) {
    addScene(app, options.scene);
    app.add_option("--bind", options.binds,
                   "CHANNEL=FILE.vdb or CHANNEL=FILE.vdb:GRID: the volume that the leaves with "
                   "this channel read; volume=FILE.vdb binds all channels that the file has")
        ->expected(1)
        ->take_all()
        ->allow_extra_args(false);
    app.add_flag("--allow-unbound", options.allowUnbound, "take 0 for what is not bound");
}

void addOutput(CLI::App& app, std::string& output, char const* help) {
    app.add_option("-o,--output", output, help)->required();
}

void addGrid(CLI::App& app, command::GridOptions& options) {
    app.add_option("--box", options.box, "low and high corner: X,Y,Z,X,Y,Z")
        ->delimiter(',')
        ->check(isFinite())
        ->required();
    app.add_option("--voxel", options.voxel, "distance of samples")
        ->required()
        ->check(isPositive());
}

/// The options of all subcommands.
struct Options {
    command::ShowOptions show;
    command::EvalOptions eval;
    command::SliceOptions slice;
    command::VolumeOptions volume;
    command::MeshOptions mesh;
    command::RenderOptions render;
    command::InfoOptions info;
    command::BenchOptions bench;
    int threads = 0;
};

/// A subcommand that runs in one process, or one that shares its work among several.
struct Run {
    std::string name;
    std::function<void(std::stop_token const&)> alone;
    std::function<void(command::Ranks&, std::stop_token const&)> shared;

    void operator()(command::Ranks& ranks, std::stop_token const& stop) const {
        if (shared) return shared(ranks, stop);
        if (!ranks.isAlone())
            throw std::runtime_error(name + " runs in one process: start it without mpirun");
        alone(stop);
    }
};

/// Adds the subcommands to `app`; parsing sets `run` to the one that is called.
void addSubcommands(CLI::App& app, Options& options, Run& run) {
    auto const add = [&]<class Call>(char const* name, char const* help, char const* examples,
                                     Call const& call) {
        CLI::App* const sub = app.add_subcommand(name, help);
        sub->footer(std::string("Examples:\n") + examples);
        sub->callback([&run, name, call] {
            run.name = name;
            if constexpr (std::is_invocable_v<Call, command::Ranks&, std::stop_token>)
                run.shared = call;
            else
                run.alone = call;
        });
        return sub;
    };

    CLI::App* sub = add("show", "Describes the tree of a scene.",
                        "  zel show gear.json\n"
                        "  zel show gear.json --dot | dot -Tsvg >gear.svg",
                        [&](auto const&) { show(options.show); });
    addScene(*sub, options.show.scene);
    sub->add_flag("--dot", options.show.dot, "a graph for graphviz");

    sub = add("eval", "Writes the values of a scene at the points of files.",
              "  zel eval gear.json points.csv -o values.npy\n"
              "  zel eval gear.json scan1.ply scan2.ply -o values.ply --gradient\n"
              "  zel eval smoke.json points.npy -o density.csv --bind volume=smoke.vdb\n"
              "  seq 100 | awk '{ print $1 / 50, 0, 0 }' | zel eval gear.json -\n"
              "  mpirun -n 64 zel eval gear.json points.npy -o values.npy",
              [&](command::Ranks& ranks, std::stop_token const& stop) {
                  eval(options.eval, ranks, stop);
              });
    addScene(*sub, options.eval.scene);
    sub->add_option("POINTS", options.eval.points,
                    ".npy, .ply, or tables of text, such as .csv; - for standard input. Their "
                    "columns are bound to the properties that the scene reads")
        ->required();
    sub->add_option("-o,--output", options.eval.output,
                    ".npy, .csv or .ply to write; - for a table on standard output")
        ->capture_default_str();
    sub->add_flag("--gradient", options.eval.gradient, "gradients, too");
    sub->add_flag("--exact", options.eval.exact,
                  "derivatives as gradients, also at nodes whose gradient is another by default");

    command::SliceOptions& slice = options.slice;
    sub = add("slice", "Draws the values of a scene on a plane: orange below 0, blue above.",
              "  zel slice gear.json --plane z=0.1 --size 1024 -o gear.png --isolines\n"
              "  zel slice gear.json --gray 16 --range -1,1 -o gear.png\n"
              "  zel slice wind.json --plane y=0 --component x -o wind.png",
              [&](auto const& stop) { command::slice(slice, stop); });
    addScene(*sub, slice.scene);
    addOutput(*sub, slice.output, ".png to write");
    sub->add_option("--plane", slice.plane, "x, y or z, = and a number")->capture_default_str();
    sub->add_option("--size", slice.size, "pixels: SIDE or WIDTHxHEIGHT")->capture_default_str();
    sub->add_option("--center", slice.center, "of the picture, on the plane: RIGHT,UP")
        ->delimiter(',')
        ->check(isFinite())
        ->default_str("0,0");
    sub->add_option("--width", slice.width, "of the picture")
        ->check(isPositive())
        ->capture_default_str();
    sub->add_option("--component", slice.component, "of a vector field: x, y, z or length")
        ->check(CLI::IsMember({"x", "y", "z", "length"}))
        ->default_str("length");
    auto* const isolines =
        sub->add_option("--isolines", slice.isolines,
                        "lines of equal value, of this SPACING or a suitable one")
            ->expected(0, 1)
            ->check(isPositive());
    sub->add_option("--scale", slice.scale,
                    "value of a colour that is most of the way to the deepest")
        ->check(isPositive());
    sub->add_option("--gray", slice.gray, "grey pixels of 8 or 16 BITS instead of colours")
        ->check(CLI::IsMember({8, 16}));
    sub->add_option("--range", slice.range, "values of black and white: BLACK,WHITE")
        ->delimiter(',')
        ->check(isFinite());
    sub->parse_complete_callback([&, isolines] { slice.hasIsolines = isolines->count() > 0; });

    sub = add("volume", "Writes the values of a scene in a box.",
              "  zel volume gear.json --box -2,-2,-1,2,2,1 --voxel 0.01 -o gear.npy\n"
              "  zel volume gear.json --box -2,-2,-1,2,2,1 --voxel 0.01 --band 3 -o gear.vdb\n"
              "  mpirun -n 64 zel volume gear.json --box -2,-2,-1,2,2,1 --voxel 0.001 -o gear.npy",
              [&](command::Ranks& ranks, std::stop_token const& stop) {
                  volume(options.volume, ranks, stop);
              });
    addScene(*sub, options.volume.scene);
    addGrid(*sub, options.volume.grid);
    addOutput(*sub, options.volume.output,
              ".vdb; or .npy, an array of the samples at low + (i, j, k) * voxel");
    sub->add_option("--band", options.volume.band,
                    "half the width of the band around the surface that a .vdb file has, in "
                    "VOXELS; without it, all samples of the box")
        ->check(isPositive());
    sub->add_flag("--fog", options.volume.fog, "a fog volume instead of a level set");
    sub->add_flag("--half", options.volume.half, "16-bit numbers in the .vdb file");
    sub->add_option("--name", options.volume.name,
                    "of the grid, otherwise surface, density or vector");

    sub = add("mesh", "Writes a mesh of the surface where a scene is 0.",
              "  zel mesh gear.json --box -2,-2,-1,2,2,1 --voxel 0.02 -o gear.ply\n"
              "  zel mesh gear.json --box -2,-2,-1,2,2,1 --voxel 0.02 --adaptivity 0.5 -o gear.obj",
              [&](auto const& stop) { mesh(options.mesh, stop); });
    addScene(*sub, options.mesh.scene);
    addGrid(*sub, options.mesh.grid);
    addOutput(*sub, options.mesh.output, ".ply or .obj to write");
    sub->add_option("--adaptivity", options.mesh.adaptivity,
                    "0 to 1: how far faces may be from the surface, to be fewer")
        ->check(CLI::Range(0.0, 1.0))
        ->capture_default_str();
    sub->add_option("--color", options.mesh.colors,
                    "SCENE of the colours of vertices: a vector field of red, green and blue, or "
                    "a scalar field of greys, 0 to 1. Repeated: scalar fields of red, of green and "
                    "of blue")
        ->expected(1)
        ->take_all()
        ->allow_extra_args(false);

    command::RenderOptions& render = options.render;
    sub = add("render", "Draws the surface where a scene is 0, in sunlight.",
              "  zel render gear.json -o gear.png\n"
              "  zel render gear.json --eye 0,1,9 --target 0,0,0 --size 1920x1080 -o gear.png",
              [&](auto const& stop) { command::render(render, stop); });
    addScene(*sub, render.scene);
    addOutput(*sub, render.output, ".png to write");
    sub->add_option("--size", render.size, "pixels: SIDE or WIDTHxHEIGHT")->capture_default_str();
    sub->add_option("--eye", render.eye, "place of the camera: X,Y,Z")
        ->delimiter(',')
        ->check(isFinite())
        ->default_str("2.6,2.4,5.2");
    sub->add_option("--target", render.target, "the middle of the picture: X,Y,Z")
        ->delimiter(',')
        ->check(isFinite())
        ->default_str("0,0,0");
    sub->add_option("--angle", render.angle, "of view, across, in degrees")->capture_default_str();
    sub->add_option("--step", render.step,
                    "part of the value that is a safe step along a ray; less for fields that are "
                    "steeper than a distance")
        ->capture_default_str();
    sub->add_option("--color", render.color, "of the surface, RRGGBB")->capture_default_str();

    sub = add("info", "Lists the grids of an OpenVDB file.", "  zel info smoke.vdb",
              [&](auto const&) { info(options.info); });
    sub->add_option("FILE", options.info.file, ".vdb file")->required();

    sub = add("bench", "Measures how long a scene takes at random points.",
              "  zel bench gear.json\n"
              "  zel bench smoke.json --bind volume=smoke.vdb --box -10,0,-10,10,20,10",
              [&](auto const& stop) { bench(options.bench, stop); });
    addScene(*sub, options.bench.scene);
    sub->add_option("--points", options.bench.points, "how many")->capture_default_str();
    sub->add_option("--seconds", options.bench.seconds, "the time of each measurement")
        ->capture_default_str();
    sub->add_option("--box", options.bench.box, "low and high corner: X,Y,Z,X,Y,Z")
        ->delimiter(',')
        ->check(isFinite())
        ->default_str("-1,-1,-1,1,1,1");
}

/// Prevents that a file is opened as one of the standard streams if these are closed, and gets
/// messages. Reading or writing the stream still fails.
void occupyStandardStreams() {
    for (int stream = 0; stream < 3; ++stream)
        if (fcntl(stream, F_GETFD) < 0)
            static_cast<void>(open("/dev/null", stream == 0 ? O_WRONLY : O_RDONLY));
}

int fail(command::Ranks& ranks, std::string const& message) {
    ranks.fail("zel: " + command::printable(message) + '\n');
    return command::kFailed;
}

int run(int argc, char** argv, command::Interrupts const& interrupts, command::Ranks& ranks) {
    Options options;
    Run run;
    CLI::App app{"Evaluates, draws and converts scenes: procedural fields in JSON.", "zel"};
    app.set_version_flag("--version", "zel " ZEL_VERSION);
    app.set_help_flag("-h,--help", "print this help and stop");
    app.require_subcommand(1);
    app.add_option("--threads", options.threads, "how many; 0 for all processors")
        ->check(CLI::Range(0, 4096));
    app.fallthrough();
    addSubcommands(app, options, run);
    try {
        app.parse(argc, argv);
    } catch (CLI::CallForHelp const&) {
        if (ranks.isRoot()) command::print(app.help());
        return 0;
    } catch (CLI::CallForVersion const& version) {
        if (ranks.isRoot()) command::print(std::string(version.what()) + '\n');
        return 0;
    } catch (CLI::ParseError const& error) {
        return fail(ranks, error.what());
    }
    std::optional<tbb::global_control> threads;
    if (options.threads > 0)
        threads.emplace(tbb::global_control::max_allowed_parallelism,
                        static_cast<std::size_t>(options.threads));
    try {
        run(ranks, interrupts.token());
    } catch (zel::Stopped const&) {
        return command::kInterrupted;
    }
    return interrupts.token().stop_requested() ? command::kInterrupted : 0;
}

}  // namespace

int main(int argc, char** argv) {
    occupyStandardStreams();
    command::Interrupts interrupts;
    auto ranks = command::makeSingleRank();
    try {
        ranks = command::joinRanks();
        if (!ranks->isAlone()) interrupts.endAtOnce();
        return run(argc, argv, interrupts, *ranks);
    } catch (std::bad_alloc const&) {
        return fail(*ranks, "not enough memory");
    } catch (std::exception const& error) {
        return fail(*ranks, error.what());
    }
}
