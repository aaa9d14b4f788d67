#pragma once

#include <string>
#include <vector>

#include <zel_platform/orvane_geometry/object.h>
#include <zel_scene/bind.h>

#include "options.h"

namespace command {

/// A tree of a file, bound to volumes.
class Scene {
public:
    explicit Scene(SceneOptions const& options);

    /// Reads several files, and the volumes that the options bind, each once for all scenes.
    /// `options.scene` is not used. Throws std::runtime_error with the name of the file for a scene
    /// that cannot be read, and for a channel that no leaf of them looks for.
    static std::vector<Scene> read(std::vector<std::string> const& files,
                                   SceneOptions const& options);

    std::string const& name() const { return m_name; }
    zel::Tree const& tree() const { return m_tree; }
    /// The tree, moreover bound to an object. Nodes that stay unbound are an error, unless the
    /// options allow them.
    zel::Tree boundTo(Orvane::Object const& object) const;
    /// The tree, if nothing else is to be bound. Throws as boundTo() does.
    zel::Tree complete() const { return boundTo(Orvane::Object()); }
    /// The complete tree of a scene whose root is a scalar field. `why` ends the sentence of the
    /// error for another, such as "a surface needs a scalar field".
    zel::ScalarPtr completeScalar(char const* why) const;

    /// Whether a node reads the property of an object by the element index.
    bool readsProperties(Orvane::Object const& object) const;

private:
    /// Reads a file, without volumes.
    Scene(std::string const& file, bool allowsUnbound);
    zel::Tree parse(Orvane::Object const* object) const;

    std::string m_name;
    bool m_allowsUnbound;
    std::string m_text;
    zel::Tree m_tree;
    /// The nodes that wait for an object, with the state that is of most use to the user.
    std::vector<zel::Binding> m_bindings;
};

/// Whether a tree has nodes that read the element index without an object.
bool readsElementIndex(zel::Tree const& tree);

}  // namespace command
