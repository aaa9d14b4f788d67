// The program zel: parses the command line, runs a subcommand, and reports its error.

#include <fcntl.h>
#include <tbb/global_control.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <functional>
#include <new>
#include <sstream>
#include <system_error>

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

CLI::Validator isPositive() {
    return floatThat([](float number) { return number > 0 && std::isfinite(number); },
                     "number above 0");
}

/// Refuses text that is no whole number from `least` to `most`.
CLI::Validator isWhole(long long least, long long most) {
    return {[least, most](std::string const& text) {
                long long number = 0;
                char const* const end = text.data() + text.size();
                auto const [parsed, error] = std::from_chars(text.data(), end, number);
                if (error == std::errc() && parsed == end && least <= number && number <= most)
                    return std::string();
                return "wanted a whole number from " + std::to_string(least) + " to " +
                       std::to_string(most) + ", found " + text;
            },
            ""};
}

/// An option of finite numbers with commas between them, within the range of floats. `form` shows
/// them, such as "X,Y,Z". A Target is assigned from Numbers, which is a std::array.
template <class Numbers, class Target>
CLI::Option* addNumbers(CLI::App& app, char const* name, Target& target, char const* form,
                        char const* help) {
    auto const parse = [&target, name, form](std::string const& text) {
        Numbers numbers{};
        std::size_t count = 0;
        std::istringstream stream(text + ',');
        for (std::string piece; std::getline(stream, piece, ','); ++count) {
            char* end = nullptr;
            long double const number = std::strtold(piece.c_str(), &end);
            if (piece.empty() || count == numbers.size()) break;
            if (*end != '\0' || !std::isfinite(static_cast<float>(number)))
                throw CLI::ValidationError(name, "wanted a finite number, found " + piece);
            numbers[count] = static_cast<typename Numbers::value_type>(number);
        }
        if (count != numbers.size() || !stream.eof())
            throw CLI::ValidationError(name, std::string("wanted ") + form + ", found " + text);
        target = numbers;
    };
    return app.add_option_function<std::string>(name, parse, help)->type_name(form);
}

/// The text of numbers that are the default of an option.
template <class Numbers> std::string textOf(Numbers const& numbers) {
    std::ostringstream text;
    for (auto const number : numbers) text << (text.tellp() > 0 ? "," : "") << number;
    return text.str();
}

/// Lets an option be repeated, with one value each.
void repeat(CLI::Option& option) {
    option.expected(1)->take_all()->allow_extra_args(false);
}

void addThreads(CLI::App& app, int& threads) {
    app.add_option("--threads", threads, "how many; 0 for all processors")->check(isWhole(0, 4096));
}

void addScene(CLI::App& app, std::string& scene) {
    app.add_option("SCENE", scene, "file of a scene in JSON, - for standard input")->required();
}

void addScene(CLI::App& app, SceneOptions& options) {
    addScene(app, options.scene);
    repeat(*app.add_option("--bind", options.binds,
                           "CHANNEL=FILE.vdb or CHANNEL=FILE.vdb:GRID: the volume that the leaves "
                           "with this channel read, of the grid with the channel's name or of "
                           "GRID, as zel info shows it; volume=FILE.vdb binds all channels that "
                           "the file has"));
    app.add_flag("--allow-unbound", options.allowUnbound, "take 0 for what is not bound");
}

void addOutput(CLI::App& app, std::string& output, char const* help) {
    app.add_option("-o,--output", output, help)->required();
}

constexpr char const* kBoxForm = "X,Y,Z,X,Y,Z";
constexpr char const* kBoxHelp = "low and high corner";

void addGrid(CLI::App& app, command::GridOptions& options) {
    addNumbers<std::array<double, 6>>(app, "--box", options.box, kBoxForm, kBoxHelp)->required();
    app.add_option("--voxel", options.voxel, "distance of samples")
        ->required()
        ->check(isPositive());
}

void addSize(CLI::App& app, std::string& size) {
    app.add_option("--size", size, "pixels: SIDE or WIDTHxHEIGHT")->capture_default_str();
}

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

/// The options of all subcommands, and the subcommand that the command line calls.
class Subcommands {
public:
    explicit Subcommands(CLI::App& app) : m_app(app) {
        addThreads(app, m_threads);
        addShow();
        addEval();
        addSlice();
        addVolume();
        addMesh();
        addRender();
        addInfo();
        addBench();
    }

    int threads() const { return m_threads; }
    /// The subcommand, after the command line is parsed.
    Run const& run() const { return m_run; }

private:
    template <class Call>
    CLI::App& add(char const* name, char const* help, char const* examples, Call const& call) {
        CLI::App& sub = *m_app.add_subcommand(name, help);
        sub.footer(std::string("Examples:\n") + examples);
        addThreads(sub, m_threads);
        sub.callback([this, name, call] {
            m_run.name = name;
            if constexpr (std::is_invocable_v<Call, command::Ranks&, std::stop_token>)
                m_run.shared = call;
            else
                m_run.alone = call;
        });
        return sub;
    }

    void addShow() {
        CLI::App& sub = add("show", "Describes the tree of a scene.",
                            "  zel show gear.json\n"
                            "  zel show gear.json --dot | dot -Tsvg >gear.svg",
                            [this](auto const&) { show(m_show); });
        addScene(sub, m_show.scene);
        sub.add_flag("--dot", m_show.dot, "a graph for graphviz");
    }

    void addEval() {
        command::EvalOptions& options = m_eval;
        CLI::App& sub =
            add("eval", "Writes the values of a scene at the points of files.",
                "  zel eval gear.json points.csv -o values.npy\n"
                "  zel eval gear.json scan1.ply scan2.ply -o values.ply --gradient\n"
                "  zel eval smoke.json points.npy -o density.csv --bind volume=smoke.vdb\n"
                "  seq 100 | awk '{ print $1 / 50, 0, 0 }' | zel eval gear.json -\n"
                "  mpirun -n 64 zel eval gear.json points.npy -o values.npy",
                [&](command::Ranks& ranks, std::stop_token const& stop) {
                    eval(options, ranks, stop);
                });
        addScene(sub, options.scene);
        sub.add_option("POINTS", options.points,
                       ".npy, .ply, or tables of text, such as .csv; - for standard input. Their "
                       "columns are bound to the properties that the scene reads")
            ->required();
        sub.add_option("-o,--output", options.output,
                       ".npy, .csv or .ply to write; - for a table on standard output")
            ->capture_default_str();
        sub.add_flag("--gradient", options.gradient, "gradients, too");
        sub.add_flag("--exact", options.exact,
                     "derivatives as gradients, also at nodes whose gradient is another by "
                     "default");
    }

    void addSlice() {
        command::SliceOptions& options = m_slice;
        CLI::App& sub =
            add("slice", "Draws the values of a scene on a plane: orange below 0, blue above.",
                "  zel slice gear.json --plane z=0.1 --size 1024 -o gear.png --isolines\n"
                "  zel slice gear.json --gray 16 --range -1,1 -o gear.png\n"
                "  zel slice wind.json --plane y=0 --component x -o wind.png",
                [&](auto const& stop) { command::slice(options, stop); });
        addScene(sub, options.scene);
        addOutput(sub, options.output, ".png to write");
        sub.add_option("--plane", options.plane, "x, y or z, = and a number")
            ->capture_default_str();
        addSize(sub, options.size);
        addNumbers<std::array<float, 2>>(sub, "--center", options.center, "RIGHT,UP",
                                         "of the picture, on the plane")
            ->default_str(textOf(options.center));
        sub.add_option("--width", options.width, "of the picture")
            ->check(isPositive())
            ->capture_default_str();
        sub.add_option("--component", options.component, "of a vector field: x, y, z or length")
            ->check(CLI::IsMember({"x", "y", "z", "length"}))
            ->default_str("length");
        auto* const isolines =
            sub.add_option("--isolines", options.isolines,
                           "lines of equal value, of this spacing or a suitable one")
                ->expected(0, 1)
                ->type_name("[SPACING]")
                ->check(floatThat([](float number) { return number > 0 && std::isfinite(number); },
                                  "spacing above 0, or another option behind"));
        sub.add_option("--scale", options.scale,
                       "value of a colour that is most of the way to the deepest")
            ->check(isPositive());
        sub.add_option("--gray", options.gray, "grey pixels of 8 or 16 BITS instead of colours")
            ->check(CLI::Validator(
                [](std::string const& text) {
                    return text == "8" || text == "16" ? "" : "wanted 8 or 16, found " + text;
                },
                "{8,16}"));
        addNumbers<std::array<float, 2>>(sub, "--range", options.range, "BLACK,WHITE",
                                         "values of black and white");
        sub.parse_complete_callback(
            [&options, isolines] { options.hasIsolines = isolines->count() > 0; });
    }

    void addVolume() {
        command::VolumeOptions& options = m_volume;
        CLI::App& sub = add(
            "volume", "Writes the values of a scene in a box.",
            "  zel volume gear.json --box -2,-2,-1,2,2,1 --voxel 0.01 -o gear.npy\n"
            "  zel volume gear.json --box -2,-2,-1,2,2,1 --voxel 0.01 --band 3 -o gear.vdb\n"
            "  mpirun -n 64 zel volume gear.json --box -2,-2,-1,2,2,1 --voxel 0.001 -o gear.npy",
            [&](command::Ranks& ranks, std::stop_token const& stop) {
                volume(options, ranks, stop);
            });
        addScene(sub, options.scene);
        addGrid(sub, options.grid);
        addOutput(sub, options.output,
                  ".vdb; or .npy, an array of the samples at low + (i, j, k) * voxel");
        sub.add_option("--band", options.band,
                       "half the width of the band around the surface that a .vdb file has, in "
                       "VOXELS; without it, all samples of the box")
            // No voxel is farther from the origin.
            ->check(floatThat([](float number) { return number > 0 && number <= 0x1p28F; },
                              "number above 0, 2^28 at most"));
        sub.add_flag("--fog", options.fog, "a fog volume instead of a level set");
        sub.add_flag("--half", options.half, "16-bit numbers in the .vdb file");
        sub.add_option("--name", options.name, "of the grid, otherwise surface, density or vector");
    }

    void addMesh() {
        command::MeshOptions& options = m_mesh;
        CLI::App& sub = add(
            "mesh", "Writes a mesh of the surface where a scene is 0.",
            "  zel mesh gear.json --box -2,-2,-1,2,2,1 --voxel 0.02 -o gear.ply\n"
            "  zel mesh gear.json --box -2,-2,-1,2,2,1 --voxel 0.02 --adaptivity 0.5 -o gear.obj",
            [&](auto const& stop) { mesh(options, stop); });
        addScene(sub, options.scene);
        addGrid(sub, options.grid);
        addOutput(sub, options.output, ".ply or .obj to write");
        sub.add_option("--adaptivity", options.adaptivity,
                       "0 to 1: how far faces may be from the surface, to be fewer")
            ->check(floatThat([](float number) { return number >= 0 && number <= 1; },
                              "number from 0 to 1"))
            ->capture_default_str();
        repeat(*sub.add_option("--color", options.colors,
                               "SCENE of the colours of vertices: a vector field of red, green "
                               "and blue, or a scalar field of greys, 0 to 1. Repeated: scalar "
                               "fields of red, of green and of blue"));
    }

    void addRender() {
        command::RenderOptions& options = m_render;
        CLI::App& sub =
            add("render", "Draws the surface where a scene is 0, in sunlight.",
                "  zel render gear.json -o gear.png\n"
                "  zel render gear.json --eye 0,1,9 --target 0,0,0 --size 1920x1080 -o gear.png",
                [&](auto const& stop) { command::render(options, stop); });
        addScene(sub, options.scene);
        addOutput(sub, options.output, ".png to write");
        addSize(sub, options.size);
        using Place = std::array<float, 3>;
        addNumbers<Place>(sub, "--eye", options.eye, "X,Y,Z", "place of the camera")
            ->default_str(textOf(options.eye));
        addNumbers<Place>(sub, "--target", options.target, "X,Y,Z", "the middle of the picture")
            ->default_str(textOf(options.target));
        sub.add_option("--angle", options.angle, "of view, across, in degrees")
            ->check(floatThat([](float number) { return number > 0 && number < 170; },
                              "number between 0 and 170"))
            ->capture_default_str();
        sub.add_option("--step", options.step,
                       "part of the value that is a safe step along a ray; less for fields that "
                       "are steeper than a distance")
            ->check(floatThat([](float number) { return number > 0 && number <= 1; },
                              "number above 0, 1 at most"))
            ->capture_default_str();
        sub.add_option("--color", options.color, "of the surface, RRGGBB")->capture_default_str();
    }

    void addInfo() {
        CLI::App& sub = add("info", "Lists the grids of an OpenVDB file.", "  zel info smoke.vdb",
                            [this](auto const&) { info(m_info); });
        sub.add_option("FILE", m_info.file, ".vdb file")->required();
    }

    void addBench() {
        command::BenchOptions& options = m_bench;
        CLI::App& sub =
            add("bench", "Measures how long a scene takes at random points.",
                "  zel bench gear.json\n"
                "  zel bench smoke.json --bind volume=smoke.vdb --box -10,0,-10,10,20,10",
                [&](auto const& stop) { bench(options, stop); });
        addScene(sub, options.scene);
        sub.add_option("--points", options.points, "how many")
            ->check(isWhole(1, 1 << 30))
            ->capture_default_str();
        sub.add_option("--seconds", options.seconds, "the time of each measurement")
            ->check(floatThat([](float number) { return number >= 0 && std::isfinite(number); },
                              "number from 0"))
            ->capture_default_str();
        addNumbers<std::array<double, 6>>(sub, "--box", options.box, kBoxForm, kBoxHelp)
            ->default_str(textOf(options.box));
    }

    CLI::App& m_app;
    Run m_run;
    int m_threads = 0;
    command::ShowOptions m_show;
    command::EvalOptions m_eval;
    command::SliceOptions m_slice;
    command::VolumeOptions m_volume;
    command::MeshOptions m_mesh;
    command::RenderOptions m_render;
    command::InfoOptions m_info;
    command::BenchOptions m_bench;
};

/// What is wrong with a command line: CLI11 does not name a word where a subcommand is missing.
std::string messageOf(CLI::App const& app, CLI::ParseError const& error) {
    auto const rest = app.remaining();
    if (!app.get_subcommands().empty() || rest.empty()) return error.what();
    if (rest.front().starts_with('-')) return rest.front() + ": there is no such option";
    std::string known;
    for (CLI::App const* const sub : app.get_subcommands({}))
        known += (known.empty() ? "" : ", ") + sub->get_name();
    return rest.front() + " is no subcommand; there are " + known;
}

/// Prevents that a file is opened as one of the standard streams if these are closed, and gets
/// messages. Reading or writing the stream still fails.
void occupyStandardStreams() {
    for (int stream = 0; stream < 3; ++stream)
        if (fcntl(stream, F_GETFD) < 0)
            static_cast<void>(open("/dev/null", stream == 0 ? O_WRONLY : O_RDONLY));
}

int reportError(command::Ranks& ranks, std::string const& message) {
    ranks.fail("zel: " + command::printable(message) + '\n');
    return command::kFailed;
}

int run(int argc, char** argv, command::Interrupts const& interrupts, command::Ranks& ranks) {
    CLI::App app{"Evaluates, draws and converts scenes: procedural fields in JSON.", "zel"};
    app.set_version_flag("--version", "zel " ZEL_VERSION);
    app.set_help_flag("-h,--help", "print this help and stop");
    app.footer("Examples:\n"
               "  zel render gear.json -o gear.png\n"
               "  zel volume gear.json --box -2,-2,-1,2,2,1 --voxel 0.01 --band 3 -o gear.vdb\n"
               "  zel slice leaf.json --bind volume=gear.vdb --isolines -o gear.png\n"
               "  zel mesh --help");
    app.require_subcommand(1);
    app.fallthrough();
    Subcommands const subcommands(app);
    try {
        app.parse(argc, argv);
    } catch (CLI::CallForHelp const&) {
        if (ranks.isRoot()) command::print(app.help());
        return 0;
    } catch (CLI::CallForVersion const& version) {
        if (ranks.isRoot()) command::print(std::string(version.what()) + '\n');
        return 0;
    } catch (CLI::ParseError const& error) {
        return reportError(ranks, messageOf(app, error));
    }
    std::optional<tbb::global_control> threads;
    if (subcommands.threads() > 0)
        threads.emplace(tbb::global_control::max_allowed_parallelism,
                        static_cast<std::size_t>(subcommands.threads()));
    try {
        subcommands.run()(ranks, interrupts.token());
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
        return reportError(*ranks, "not enough memory");
    } catch (std::exception const& error) {
        // A leaf that cannot be bound passes on the text alone.
        bool const isMemory = std::string_view(error.what()) == std::bad_alloc().what();
        return reportError(*ranks, isMemory ? "not enough memory" : error.what());
    }
}
