#pragma once

#include <concepts>
#include <memory>
#include <vector>

#include "dense_volume.h"

/// The samples of a dense array in a grid of OpenVDB, with OpenVDB's samplers. Positions are in
/// world units, an array for each component.
template <class T> class OpenVdbBaseline {
public:
    using Floats = std::vector<float>;

    explicit OpenVdbBaseline(DenseVolume<T> const& dense);
    OpenVdbBaseline(OpenVdbBaseline const&) = delete;
    ~OpenVdbBaseline();

    /// The sum of the components of all trilinear values.
    double linear(Floats const& x, Floats const& y, Floats const& z) const;
    /// The sum of all trilinear values and of the components of their gradients.
    double linearWithGradients(Floats const& x, Floats const& y,
                               Floats const& z) const requires std::same_as<T, float>;
    /// The sum of the first components of all triquadratic values.
    double quadratic(Floats const& x, Floats const& y, Floats const& z) const;

private:
    struct Grid;
    std::unique_ptr<Grid> m_grid;
};
