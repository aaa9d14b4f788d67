#include "scene.h"

#include <algorithm>
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

/// Reads the grids that a --bind asks for. `wanted` has the channels of the scene that no volume
/// has so far; those of this volume are taken out.
Volume readVolume(std::string const& bind, std::set<std::string>& wanted) {
    auto const equals = bind.find('=');
    if (equals == std::string::npos || equals == 0 || equals + 1 == bind.size())
        throw std::runtime_error("--bind " + bind + ": wanted CHANNEL=FILE.vdb or volume=FILE.vdb");
    std::string const name = bind.substr(0, equals);
    Volume volume;
    volume.file = bind.substr(equals + 1);
    std::string grid;
    constexpr std::string_view kSuffix = ".vdb:";
    if (auto const colon = volume.file.rfind(kSuffix); colon != std::string::npos) {
        grid = volume.file.substr(colon + kSuffix.size());
        volume.file.resize(colon + kSuffix.size() - 1);
    }
    bool const isAll = name == "volume" && grid.empty();
    if (!isAll && !wanted.contains(name))
        throw std::runtime_error("--bind " + bind + ": the scene looks for no channel " + name +
                                 "; open channels: " + listOf({wanted.begin(), wanted.end()}));

    std::map<std::string, std::string> channelOfGrid;
    std::vector<std::string> names;
    for (zel::VdbGrid const& there : zel::listVdb(volume.file)) {
        names.push_back('"' + there.name + '"');
        if (isAll && wanted.contains(there.name)) channelOfGrid[there.name] = there.name;
    }
    if (!isAll) channelOfGrid[grid.empty() ? name : grid] = name;
    if (channelOfGrid.empty())
        throw std::runtime_error(volume.file + ": has no grid for the channels " +
                                 listOf({wanted.begin(), wanted.end()}) +
                                 "; its grids: " + listOf(names));
    std::vector<std::string> grids;
    for (auto const& [read, channel] : channelOfGrid) {
        grids.push_back(read);
        volume.channels.insert(channel);
        wanted.erase(channel);
    }
    volume.data = zel::readVdbGrids(volume.file, grids);

    auto const whole = Orvane::Geometry::shallow_copy_object_to_orv_volume(volume.data.object);
    auto renamed = Quern::makePtr<ORV::Object>();
    for (std::string const& component : whole->componentNames()) {
        auto const found = channelOfGrid.find(component);
        renamed->setComponent(found == channelOfGrid.end() ? component : found->second,
                              whole->component<ORV::Component>(Quern::String(component)));
    }
    Orvane::Geometry::setVolume(volume.object, renamed);
    return volume;
}

/// Keeps of two reports on a node the one that tells more.
void merge(std::vector<zel::Binding>& known, std::vector<zel::Binding> const& report) {
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

Scene::Scene(SceneOptions const& options)
    : m_name(shownName(options.scene)), m_allowsUnbound(options.allowUnbound) {
    std::string const text = readText(options.scene);
    auto const read = [&](Orvane::Object const* object) {
        try {
            return zel::fromJson(text, {}, object);
        } catch (zel::SceneError const& error) {
            throw std::runtime_error(m_name + ": " + error.what());
        }
    };
    m_tree = read(nullptr);
    m_bindings = zel::bind(m_tree, Orvane::Object()).bindings;

    std::set<std::string> wanted;
    bool isConstructed = false;
    for (zel::Binding const& binding : m_bindings) {
        if (isOfChannel(binding.state)) wanted.insert(binding.name);
        isConstructed = isConstructed || binding.state == State::kConstructed;
    }
    std::vector<Volume> volumes;
    for (std::string const& bind : options.binds) volumes.push_back(readVolume(bind, wanted));
    if (volumes.empty()) return;
    // Leaves that are bound by their constructor can read the first volume alone.
    if (isConstructed) m_tree = read(&volumes.front().object);
    std::visit([&](auto& root) { Placer(volumes).place(root); }, m_tree);
    m_bindings = zel::bind(m_tree, Orvane::Object()).bindings;
    for (Volume const& volume : volumes)
        merge(m_bindings, zel::bind(m_tree, volume.object).bindings);
}

zel::Tree Scene::boundTo(Orvane::Object const& object) const {
    zel::Tree tree = m_tree;
    std::vector<zel::Binding> bindings = m_bindings;
    merge(bindings, zel::bind(tree, object).bindings);
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
