#include "scene_files.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <stdexcept>

namespace examples {

namespace {

std::filesystem::path fileOf(std::string const& scene) {
    if (scene.ends_with(".json")) return scene;
    return std::filesystem::path(ZEL_EXAMPLE_SCENES) / (scene + ".json");
}

std::string readFile(std::string const& scene) {
    auto const file = fileOf(scene);
    if (!scene.ends_with(".json") && !std::filesystem::exists(file))
        throw std::runtime_error("no scene is named '" + scene +
                                 "'; --list shows them all, and a file ends in .json");
    if (std::filesystem::is_directory(file))
        throw std::runtime_error(file.string() + ": is a folder, not a scene");
    std::ifstream stream(file, std::ios::binary);
    std::string text(std::istreambuf_iterator<char>(stream), {});
    if (!stream) throw std::runtime_error(file.string() + ": cannot be read");
    return text;
}

template <class Read>
auto readScene(std::string const& scene, std::string const& text, Read const& read) {
    try {
        return read(text, zel::SceneLimits(), nullptr);
    } catch (zel::SceneError const& error) {
        throw std::runtime_error(fileOf(scene).string() + ": " + error.what());
    }
}

}  // namespace

ScalarPtr loadScalar(std::string const& scene) {
    return readScene(scene, readFile(scene), zel::scalarFromJson);
}

VectorPtr loadVector(std::string const& scene) {
    return readScene(scene, readFile(scene), zel::vectorFromJson);
}

ScalarPtr loadScalar(std::string const& scene, char const* place, char const* text) {
    auto json = nlohmann::ordered_json::parse(readFile(scene));
    json.at(nlohmann::ordered_json::json_pointer(place)) = text;
    return readScene(scene, json.dump(), zel::scalarFromJson);
}

std::vector<SceneTitle> sceneTitles() {
    std::vector<SceneTitle> titles;
    for (auto const& file : std::filesystem::directory_iterator(ZEL_EXAMPLE_SCENES)) {
        std::string const name = file.path().stem().string();
        std::string const text = readFile(name);
        if (readScene(name, text, zel::fromJson).index() != 0) continue;  // a vector field
        titles.push_back({name, nlohmann::json::parse(text).value("comment", "")});
    }
    std::sort(titles.begin(), titles.end(),
              [](SceneTitle const& a, SceneTitle const& b) { return a.name < b.name; });
    return titles;
}

}  // namespace examples
