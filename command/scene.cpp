#include "scene.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <map>
#include <memory>
#include <set>
#include <stdexcept>
#include <system_error>
#include <unordered_map>
#include <unordered_set>

#include <zel/vector/arithmetic.h>
#include <zel_exchange/error.h>
#include <zel_exchange/vdb.h>
#include <zel_platform/orvane_geometry/geo_property.h>
#include <zel_platform/orvane_geometry_volume/object.h>
#include <zel_scene/json.h>

namespace command {

namespace {

using State = zel::Binding::State;

/// A volume that a --bind names.
struct Volume {
    std::string file;
    std::set<std::string> channels;  ///< by the names in the scene
    zel::VdbVolume data;
    Orvane::Object object;  ///< with the channels
};

/// The `channel` that a leaf looks for; empty for other nodes.
std::string channelOf(zel::Field const& node) {
    zel::NodeClass const* const known = zel::findNodeClass(node);
    if (!known) return {};
    for (std::size_t i = 0; i < known->parameters.size(); ++i) {
        if (known->parameters[i].name != "channel") continue;
        std::vector<zel::Value> values;
        known->read(node, values);
        if (auto const* const name = std::get_if<Quern::String>(&values[i])) return name->c_str();
    }
    return {};
}

/// Puts the volume leaves of a tree where their files have them.
class Placer final : zel::ChildReplacer {
public:
    explicit Placer(std::vector<Volume> const& volumes) : m_volumes(volumes) {}

    template <class Interface> void place(Quern::Ptr<Interface>& root) {
        (*this)(root);
        while (!m_open.empty()) {
            zel::Field* const node = m_open.back();
            m_open.pop_back();
            node->replaceChildren(*this);
        }
    }

private:
    void operator()(zel::ScalarPtr& child) override { replace(child, m_scalars); }
    void operator()(zel::VectorPtr& child) override { replace(child, m_vectors); }
    void operator()(zel::Field& child) override {
        if (Volume const* const volume = volumeOf(child))
            throw std::runtime_error(volume->file + ": the scene has the channel " +
                                     channelOf(child) + " at a node that cannot be moved");
        m_open.push_back(&child);
    }

    template <class Interface>
    void replace(Quern::Ptr<Interface>& child,
                 std::unordered_map<void const*, Quern::Ptr<Interface>>& known) {
        if (!child) return;
        auto const [entry, isNew] = known.try_emplace(child.get());
        if (isNew) {
            Volume const* const volume = volumeOf(*child);
            entry->second = volume ? volume->data.place(child) : child;
            if (!volume) m_open.push_back(child.get());
        }
        child = entry->second;
    }

    Volume const* volumeOf(zel::Field const& node) const {
        std::string const channel = channelOf(node);
        for (Volume const& volume : m_volumes)
            if (volume.channels.contains(channel) && !volume.data.isPlaced()) return &volume;
        return nullptr;
    }

    std::vector<Volume> const& m_volumes;
    std::unordered_map<void const*, zel::ScalarPtr> m_scalars;
    std::unordered_map<void const*, zel::VectorPtr> m_vectors;
    std::vector<zel::Field*> m_open;
};

/// Whether the nodes of a state look for a channel.
bool isOfChannel(State state) {
    return state == State::kNoVolume || state == State::kNoChannel ||
           state == State::kWrongChannel || state == State::kConstructed;
}

std::string listOf(std::vector<std::string> const& names) {
    std::string list;
    for (std::string const& name : names) list += (list.empty() ? "" : ", ") + name;
    return names.empty() ? "none" : list;
}

/// What a --bind says: CHANNEL=FILE or CHANNEL=FILE.vdb:GRID.
struct Bind {
    std::string text, channel, file, grid;

    /// Whether all channels are meant that the file has.
    bool isAll() const { return channel == "volume" && grid.empty(); }
};

Bind parseBind(std::string const& text) {
    auto const equals = text.find('=');
    if (equals == std::string::npos || equals == 0 || equals + 1 == text.size())
        throw std::runtime_error("--bind " + text + ": wanted CHANNEL=FILE.vdb or volume=FILE.vdb");
    Bind bind{text, text.substr(0, equals), text.substr(equals + 1), {}};
    std::string lower = bind.file;
    for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    constexpr std::string_view kSuffix = ".vdb:";
    if (auto const colon = lower.rfind(kSuffix); colon != std::string::npos) {
        bind.grid = bind.file.substr(colon + kSuffix.size());
        bind.file.resize(colon + kSuffix.size() - 1);
        if (bind.grid.empty())
            throw std::runtime_error("--bind " + text + ": names no grid after the colon");
    }
    return bind;
}

/// The channels that a bind asks for, by the names of their grids. `wanted` has those that the
/// scenes look for and no volume has so far.
std::map<std::string, std::string> channelsByGrid(Bind const& bind,
                                                  std::set<std::string> const& wanted) {
    auto const list = [&] { return listOf({wanted.begin(), wanted.end()}); };
    if (!bind.isAll() && !wanted.contains(bind.channel))
        throw std::runtime_error("--bind " + bind.text + ": the scene looks for no channel " +
                                 bind.channel + "; open channels: " + list());
    if (!bind.isAll()) return {{bind.grid.empty() ? bind.channel : bind.grid, bind.channel}};
    if (wanted.empty())
        throw std::runtime_error("--bind " + bind.text +
                                 ": the scene looks for no channel that is not bound already");
    std::map<std::string, std::string> channels;
    std::vector<std::string> names;
    for (zel::VdbGrid const& grid : zel::listVdb(bind.file)) {
        names.push_back('"' + grid.name + '"');
        if (wanted.contains(grid.name)) channels[grid.name] = grid.name;
    }
    if (channels.empty())
        throw std::runtime_error(bind.file + ": has no grid for the channels " + list() +
                                 "; its grids: " + listOf(names));
    return channels;
}

/// Reads the grids of some channels of a file. The volume has them by the channels' names.
Volume readVolume(std::string const& file, std::map<std::string, std::string> const& channels) {
    Volume volume;
    volume.file = file;
    std::vector<std::string> grids;
    for (auto const& [grid, channel] : channels) {
        grids.push_back(grid);
        volume.channels.insert(channel);
    }
    volume.data = zel::readVdbGrids(file, grids);
    auto const whole = Orvane::Geometry::shallow_copy_object_to_orv_volume(volume.data.object);
    auto renamed = Quern::makePtr<ORV::Object>();
    for (std::string const& component : whole->componentNames()) {
        auto const found = channels.find(component);
        renamed->setComponent(found == channels.end() ? component : found->second,
                              whole->component<ORV::Component>(Quern::String(component)));
    }
    Orvane::Geometry::setVolume(volume.object, renamed);
    return volume;
}

/// Reads the grids of some channels of a file into one volume, or into one each if they do not fit
/// together, as grids of different transforms do not.
std::vector<Volume> readVolumes(std::string const& file,
                                std::map<std::string, std::string> const& channels) {
    std::vector<Volume> volumes;
    try {
        volumes.push_back(readVolume(file, channels));
    } catch (zel::FileError const&) {
        if (channels.size() == 1) throw;
        for (auto const& channel : channels) volumes.push_back(readVolume(file, {channel}));
    }
    return volumes;
}

/// Of two reports on each node, keeps in `known` the one that tells more.
void keepMoreInformative(std::vector<zel::Binding>& known,
                         std::vector<zel::Binding> const& report) {
    for (std::size_t i = 0; i < report.size() && i < known.size(); ++i) {
        State const before = known[i].state;
        State const now = report[i].state;
        bool const isWrong = now == State::kWrongChannel || now == State::kWrongType;
        if (now == State::kBound || (isWrong && before != State::kBound)) known[i] = report[i];
    }
}

/// Looks for nodes that read the element index without an object.
class IndexFinder final : zel::FieldConstVisitor {
public:
    explicit IndexFinder(zel::Tree const& tree) {
        std::visit([&](auto const& root) { (*this)(*root); }, tree);
        while (!m_open.empty()) {
            zel::Field const* const node = m_open.back();
            m_open.pop_back();
            node->listChildren(*this);
        }
    }
    bool isFound() const { return m_isFound; }

private:
    void operator()(zel::Field const& node) override {
        if (!m_known.insert(&node).second) return;
        m_open.push_back(&node);
        if (dynamic_cast<zel::VectorFieldConstantArray const*>(&node)) m_isFound = true;
    }

    std::unordered_set<zel::Field const*> m_known;
    std::vector<zel::Field const*> m_open;
    bool m_isFound = false;
};

/// The name of a file in messages.
std::string shownName(std::string const& path) {
    return path == "-" ? "standard input" : path;
}

/// Reads a file, or standard input for "-". Throws std::runtime_error with its name.
std::string readText(std::string const& path) {
    auto const fail = [&](char const* what) {
        throw std::runtime_error(shownName(path) + ": cannot be " + what + ": " +
                                 std::generic_category().message(errno));
    };
    std::FILE* const file = path == "-" ? stdin : std::fopen(path.c_str(), "rbe");
    if (!file) fail("opened");
    auto const close = [](std::FILE* open) {
        if (open != stdin) std::fclose(open);
    };
    std::unique_ptr<std::FILE, decltype(close)> const closer(file, close);
    std::size_t const most = zel::SceneLimits().bytes;
    std::string text;
    for (std::size_t size = 0;;) {
        text.resize(size + (1 << 16));
        size += std::fread(text.data() + size, 1, 1 << 16, file);
        text.resize(size);
        if (std::ferror(file)) fail("read");
        if (std::feof(file)) return text;
        if (size > most)
            throw std::runtime_error(shownName(path) + ": has more than " + std::to_string(most) +
                                     " bytes");
    }
}

}  // namespace

Scene::Scene(std::string const& file, bool allowsUnbound)
    : m_name(shownName(file)), m_allowsUnbound(allowsUnbound), m_text(readText(file)),
      m_tree(parse(nullptr)), m_bindings(zel::bind(m_tree, Orvane::Object()).bindings) {}

Scene::Scene(SceneOptions const& options) : Scene(read({options.scene}, options).front()) {}

zel::Tree Scene::parse(Orvane::Object const* object) const {
    try {
        return zel::fromJson(m_text, {}, object);
    } catch (zel::SceneError const& error) {
        throw std::runtime_error(m_name + ": " + error.what());
    }
}

std::vector<Scene> Scene::read(std::vector<std::string> const& files, SceneOptions const& options) {
    std::vector<Scene> scenes;
    std::vector<std::set<std::string>> channels;  // that each scene looks for
    std::set<std::string> wanted;                 // those that no volume has so far
    for (std::string const& file : files) {
        scenes.push_back(Scene(file, options.allowUnbound));
        std::set<std::string>& own = channels.emplace_back();
        for (zel::Binding const& binding : scenes.back().m_bindings)
            if (isOfChannel(binding.state)) own.insert(binding.name);
        wanted.insert(own.begin(), own.end());
    }
    std::vector<Volume> volumes;
    for (std::string const& text : options.binds) {
        Bind const bind = parseBind(text);
        for (Volume& volume : readVolumes(bind.file, channelsByGrid(bind, wanted))) {
            for (std::string const& channel : volume.channels) wanted.erase(channel);
            volumes.push_back(std::move(volume));
        }
    }
    for (std::size_t i = 0; i < scenes.size(); ++i) {
        Scene& scene = scenes[i];
        auto const first = std::find_if(volumes.begin(), volumes.end(), [&](Volume const& volume) {
            return std::any_of(volume.channels.begin(), volume.channels.end(),
                               [&](auto const& name) { return channels[i].contains(name); });
        });
        if (first == volumes.end()) continue;
        // Leaves that are bound by their constructor can read one volume alone.
        if (std::any_of(scene.m_bindings.begin(), scene.m_bindings.end(),
                        [](auto const& binding) { return binding.state == State::kConstructed; }))
            scene.m_tree = scene.parse(&first->object);
        std::visit([&](auto& root) { Placer(volumes).place(root); }, scene.m_tree);
        scene.m_bindings = zel::bind(scene.m_tree, Orvane::Object()).bindings;
        for (Volume const& volume : volumes)
            keepMoreInformative(scene.m_bindings, zel::bind(scene.m_tree, volume.object).bindings);
    }
    return scenes;
}

zel::Tree Scene::boundTo(Orvane::Object const& object) const {
    zel::Tree tree = m_tree;
    std::vector<zel::Binding> bindings = m_bindings;
    keepMoreInformative(bindings, zel::bind(tree, object).bindings);
    std::erase_if(bindings, [](auto const& binding) { return binding.state == State::kBound; });
    if (bindings.empty() || m_allowsUnbound) return tree;
    std::set<std::string> reasons;
    for (zel::Binding const& binding : bindings) reasons.insert(binding.reason());
    throw std::runtime_error(m_name + ": unbound: " + listOf({reasons.begin(), reasons.end()}) +
                             "; bind them by --bind or the columns of points, or take 0 for them "
                             "by --allow-unbound");
}

zel::ScalarPtr Scene::completeScalar(char const* why) const {
    zel::Tree const tree = complete();
    if (auto const* const scalar = std::get_if<zel::ScalarPtr>(&tree)) return *scalar;
    throw std::runtime_error(m_name + ": is a vector field; " + why);
}

bool Scene::readsProperties(Orvane::Object const& object) const {
    zel::Tree tree = m_tree;
    auto const report = zel::bind(tree, object).bindings;
    for (std::size_t i = 0; i < report.size(); ++i)
        if (report[i].state == State::kBound && m_bindings[i].state != State::kBound) return true;
    return false;
}

bool readsElementIndex(zel::Tree const& tree) {
    return IndexFinder(tree).isFound();
}

}  // namespace command
