#include <algorithm>
#include <charconv>
#include <cmath>
#include <stdexcept>
#include <system_error>

#include <drawing/plot.h>
#include <zel/operators/warp.h>
#include <zel/scalar/arithmetic.h>
#include <zel/scalar/spatial.h>
#include <zel/vector/projection.h>
#include <zel_exchange/image.h>

#include "commands.h"
#include "picture.h"
#include "scene.h"
#include "session.h"

namespace command {

namespace {

using Quern::makePtr;

/// The scalar field that is drawn of a vector field.
zel::ScalarPtr componentOf(zel::VectorPtr const& field, std::string const& name) {
    if (name.empty() || name == "length") return makePtr<zel::VectorFieldLength>(field);
    if (name == "x") return makePtr<zel::VectorFieldXComponent>(field);
    if (name == "y") return makePtr<zel::VectorFieldYComponent>(field);
    return makePtr<zel::VectorFieldZComponent>(field);
}

zel::ScalarPtr drawnField(SliceOptions const& options) {
    Scene const scene(options.scene);
    zel::Tree const tree = scene.complete();
    if (auto const* const vector = std::get_if<zel::VectorPtr>(&tree))
        return componentOf(*vector, options.component);
    if (!options.component.empty())
        throw std::runtime_error(scene.name() + ": is a scalar field, which has no --component");
    return std::get<zel::ScalarPtr>(tree);
}

/// The field of which the plane z = 0 is the plane of the text, such as "y=0.5". The right and the
/// upper direction are x and y there, or x and z, or y and z.
zel::ScalarPtr onPlane(zel::ScalarPtr field, std::string const& text) {
    float offset = 0;
    char const* const end = text.data() + text.size();
    bool isPlane = text.size() > 2 && text[0] >= 'x' && text[0] <= 'z' && text[1] == '=';
    if (isPlane) {
        auto const [parsed, error] = std::from_chars(text.data() + 2, end, offset);
        isPlane = parsed == end && error == std::errc() && std::isfinite(offset);
    }
    if (!isPlane)
        throw std::runtime_error("--plane " + text + ": wanted a plane such as z=0 or x=-1.5");
    if (text[0] == 'z' && offset == 0) return field;
    auto const across = makePtr<zel::ScalarFieldConstant>(offset);
    auto const right = makePtr<zel::ScalarFieldXPosition>();
    auto const up = makePtr<zel::ScalarFieldYPosition>();
    auto const positions =
        text[0] == 'x'   ? makePtr<zel::VectorFieldFromComponents>(across, right, up)
        : text[0] == 'y' ? makePtr<zel::VectorFieldFromComponents>(right, across, up)
                         : makePtr<zel::VectorFieldFromComponents>(right, up, across);
    return makePtr<zel::ScalarFieldWarp>(std::move(field), positions);
}

/// The largest number of 1, 2 and 5 times a power of 10 that is not above `value`.
float roundedDown(float value) {
    float const power = std::pow(10.0F, std::floor(std::log10(value)));
    return value >= 5 * power ? 5 * power : value >= 2 * power ? 2 * power : power;
}

/// A value that is often exceeded in the picture.
float usualValue(drawing::Meter& meter, zel::ScalarField const& field, drawing::View const& view,
                 std::array<int, 2> const& size) {
    constexpr int kWidth = 64;
    int const height = std::clamp(kWidth * size[1] / size[0], 1, 4 * kWidth);
    auto const values = meter.values(field, pixelPositions(view, kWidth, height));
    std::vector<float> sizes;
    for (float const value : *values)
        if (std::isfinite(value)) sizes.push_back(std::fabs(value));
    if (sizes.empty()) return 1;
    auto const place = sizes.begin() + static_cast<std::ptrdiff_t>(sizes.size() * 6 / 10);
    std::nth_element(sizes.begin(), place, sizes.end());
    return *place > 1e-30F && *place < 1e30F ? *place : 1;
}

template <class Sample>
void writeGray(SliceOptions const& options, drawing::Meter& meter, zel::ScalarField const& field,
               drawing::View const& view, std::array<int, 2> const& size, Progress& progress) {
    zel::Image<Sample> image{
        static_cast<std::size_t>(size[0]), static_cast<std::size_t>(size[1]), 1, {}};
    image.samples.reserve(image.width * image.height);
    drawing::forEachBand(size[0], size[1], progress.function(), [&](int top, int rows) {
        auto const values = meter.values(field, pixelPositions(view, size[0], size[1], top, rows));
        for (float const value : *values)
            image.samples.push_back(
                zel::sampleOf<Sample>(value, (*options.range)[0], (*options.range)[1]));
    });
    zel::writePng(options.output, image);
}

}  // namespace

void slice(SliceOptions const& options, std::stop_token const& stop) {
    auto const size = parseSize(options.size);
    if (options.gray != 0 && !options.range)
        throw std::runtime_error("--gray needs a --range, of the values of black and white");
    if (options.gray == 0 && options.range)
        throw std::runtime_error("--range needs --gray; colours take --scale");
    if (options.gray != 0 && (options.hasIsolines || options.scale))
        throw std::runtime_error("--isolines and --scale are for colours, not for --gray");
    if (options.range && (*options.range)[0] == (*options.range)[1])
        throw std::runtime_error("--range: black and white have the same value, " +
                                 std::to_string((*options.range)[0]));
    expectPicture(options.output);
    zel::ScalarPtr const field = onPlane(drawnField(options), options.plane);
    drawing::View const view{options.center[0], options.center[1], options.width};
    drawing::Meter meter(stop);
    Progress progress("rows");
    if (options.gray == 8)
        return writeGray<std::uint8_t>(options, meter, *field, view, size, progress);
    if (options.gray == 16)
        return writeGray<std::uint16_t>(options, meter, *field, view, size, progress);

    float const scale = options.scale ? *options.scale : usualValue(meter, *field, view, size);
    drawing::PlotStyle style{.scale = scale};
    if (!options.hasIsolines)
        style.spacing = style.zeroWidth = 0;
    else
        style.spacing = options.isolines ? *options.isolines : roundedDown(scale / 4);
    drawing::Image const image =
        plot(meter, *field, view, size[0], size[1], style, progress.function());
    writePicture(options.output, image);
}

}  // namespace command
