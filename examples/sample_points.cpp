// Reads positions and writes the value and the gradient of a field at each of them.

#include <CLI/CLI.hpp>
#include <charconv>
#include <cstdio>
#include <string>

#include <zel_scene/bind.h>

#include "output.h"
#include "point_file.h"
#include "scene_files.h"

namespace {

using zel::float3;

constexpr int kFailed = 2;

/// The number of points in memory at a time. The element index begins at 0 in each batch; scenes
/// that read it see their first elements again.
constexpr long long kPointsAtATime = 1 << 16;

/// Writes nine digits, so that the same float is read back.
void append(std::string& text, float value, char end) {
    char digits[32];
    auto const result =
        std::to_chars(digits, digits + sizeof digits, value, std::chars_format::general, 9);
    text.append(digits, result.ptr);
    text += end;
}

/// Appends a line `x y z value gx gy gz` for each position.
void appendSamples(std::string& text, zel::ScalarField const& field,
                   Quern::Array<float3> const& points) {
    auto const samples = Core::Fields::evalAndGrad(field, points);
    for (long long i = 0; i < points.size(); ++i) {
        float3 const& gradient = (*samples.gradients)[i];
        for (int c = 0; c < 3; ++c) append(text, points[i][c], ' ');
        append(text, (*samples.values)[i], ' ');
        for (int c = 0; c < 3; ++c) append(text, gradient[c], c < 2 ? ' ' : '\n');
    }
}

void sample(zel::ScalarField const& field, std::string const& input, std::string const& output) {
    examples::PointReader reader(input);
    auto points = reader.read(kPointsAtATime);
    examples::OutputFile file(output);
    for (std::string text; !points.empty(); points = reader.read(kPointsAtATime)) {
        text.clear();
        appendSamples(text, field, points);
        file.write(text);
    }
    file.commit();
}

/// Names the leaves that read a property or a volume, which this program cannot give them.
void warnOfUnbound(zel::ScalarPtr tree) {
    std::string const unbound = zel::bind(tree, Orvane::Object()).text();
    if (unbound.empty()) return;
    std::fprintf(stderr, "sample_points: warning: without an object, these leaves are zero:\n%s",
                 unbound.c_str());
}

void listScenes() {
    examples::OutputFile file("-");
    for (examples::SceneTitle const& scene : examples::sceneTitles())
        file.write(scene.name + ": " + scene.title + '\n');
    file.commit();
}

int run(int argc, char** argv) {
    std::string sceneName = "sphere";
    std::string input = "-";
    std::string output = "-";
    bool list = false;
    CLI::App app{
        "Writes `x y z value gx gy gz` for each position `x y z` that it reads: the value "
        "of a scene and its gradient. Numbers are separated by spaces, tabs or a comma; nan and "
        "inf are numbers. Blank lines and lines that start with # are skipped. Ends with status 2 "
        "if anything fails, and then leaves an output file as it was."};
    app.add_option("points", input, "file of positions, - for standard input")
        ->capture_default_str();
    app.add_option("--scene", sceneName, "name of a scene, or a file of a tree in JSON")
        ->capture_default_str();
    app.add_option("--output", output, "file to write, - for standard output")
        ->capture_default_str();
    app.add_flag("--list", list, "list the scenes and stop");
    try {
        app.parse(argc, argv);
    } catch (CLI::ParseError const& error) {
        return app.exit(error) == 0 ? examples::finish("sample_points") : kFailed;
    }
    if (list) {
        listScenes();
        return 0;
    }
    zel::ScalarPtr const tree = examples::loadScalar(sceneName);
    warnOfUnbound(tree);
    sample(*tree, input, output);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return run(argc, argv);
    } catch (examples::PointFileError const& error) {
        std::fprintf(stderr, "%s\n", error.what());
    } catch (std::exception const& error) {
        std::fprintf(stderr, "sample_points: %s\n", error.what());
    }
    return kFailed;
}
