// scene_tool schema, or scene_tool dot|json FILE: prints what libzel_scene makes of it.

#include <clocale>
#include <cstdio>
#include <exception>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>

#include "zel_scene/describe.h"
#include "zel_scene/json.h"
#include "zel_scene/schema.h"

int main(int argc, char** argv) try {
    std::setlocale(LC_ALL, "");
    std::string const mode = argc > 1 ? argv[1] : "";
    if (mode == "schema") {
        std::cout << zel::sceneSchema();
    } else {
        std::ifstream stream(argc > 2 ? argv[2] : "");
        zel::Tree const tree =
            zel::fromJson(std::string(std::istreambuf_iterator<char>(stream), {}));
        std::cout << (mode == "dot" ? zel::toDot(tree) : zel::toJson(tree));
    }
    return std::cout.flush() ? 0 : 2;
} catch (std::exception const& error) {
    std::fprintf(stderr, "scene_tool: %s\n", error.what());
    return 1;
}
