// Reads positions and writes the value and the gradient of a field at each of them.

#include <tbb/parallel_for.h>

#include <CLI/CLI.hpp>
#include <charconv>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <string>

#include "point_file.h"
#include "scenes.h"

namespace {

using zel::float3;

constexpr int kFailed = 2;

Quern::Array<float3> readInput(std::string const& path) {
    if (path == "-") return examples::readPoints(std::cin, "<stdin>");
    std::ifstream in(path);
    if (!in) throw std::runtime_error(path + ": cannot be opened");
    return examples::readPoints(in, path);
}

/// Nine digits, so that reading the text gives the same float.
void append(std::string& text, float value, char end) {
    char digits[32];
    auto const result =
        std::to_chars(digits, digits + sizeof digits, value, std::chars_format::general, 9);
    text.append(digits, result.ptr);
    text += end;
}

/// `x y z value gx gy gz`, a line for each position.
std::string sampled(zel::ScalarField const& field, Quern::Array<float3> const& points) {
    auto const values = field.eval(points);
    Quern::Array<float3> gradients(points.size());
    // The hooks bracket any sampling of many points; the batch above has run its own.
    field.preSampleField();
    tbb::parallel_for(0LL, points.size(),
                      [&](long long i) { gradients[i] = field.grad(points[i], i); });
    field.postSampleField();
    std::string text;
    for (long long i = 0; i < points.size(); ++i) {
        for (int c = 0; c < 3; ++c) append(text, points[i][c], ' ');
        append(text, (*values)[i], ' ');
        for (int c = 0; c < 3; ++c) append(text, gradients[i][c], c < 2 ? ' ' : '\n');
    }
    return text;
}

void writeOutput(std::string const& path, std::string const& text) {
    if (path == "-") {
        if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size() ||
            std::fflush(stdout) != 0)
            throw std::runtime_error("<stdout>: cannot be written");
        return;
    }
    examples::WholeFile file(path);
    file.write(text);
    file.commit();
}

void listScenes() {
    for (examples::Scene const& scene : examples::scenes())
        std::cout << scene.name << ": " << scene.title << '\n';
}

int run(int argc, char** argv) {
    std::string sceneName = "sphere";
    std::string input = "-";
    std::string output = "-";
    bool list = false;
    CLI::App app{
        "Writes `x y z value gx gy gz` for each position `x y z` that it reads: the value "
        "of a scene and its gradient. Blank lines and lines that start with # are skipped; "
        "nan and inf are numbers. Ends with status 2 if anything fails, and then leaves "
        "the output file as it was."};
    app.add_option("points", input, "file of positions, - for standard input")
        ->capture_default_str();
    app.add_option("--scene", sceneName, "name of the scene")->capture_default_str();
    app.add_option("--output", output, "file to write, - for standard output")
        ->capture_default_str();
    app.add_flag("--list", list, "list the scenes and stop");
    try {
        app.parse(argc, argv);
    } catch (CLI::ParseError const& error) {
        return app.exit(error) == 0 ? 0 : kFailed;
    }
    if (list) {
        listScenes();
        return 0;
    }
    examples::Scene const* const scene = examples::findScene(sceneName);
    if (!scene)
        throw std::runtime_error("no scene is named '" + sceneName + "'; --list shows them all");
    writeOutput(output, sampled(*scene->make(), readInput(input)));
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
