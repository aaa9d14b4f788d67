#include "drawing/palette.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <span>

namespace drawing {

namespace {

/// Interpolates linearly between colours that are evenly spaced from t = 0 to t = 1.
Color onRamp(std::span<Color const> ramp, float t) {
    if (!(t > 0)) return ramp.front();
    float const place = std::min(t, 1.0F) * static_cast<float>(ramp.size() - 1);
    auto const i = std::min(static_cast<std::size_t>(place), ramp.size() - 2);
    return mix(ramp[i], ramp[i + 1], place - static_cast<float>(i));
}

}  // namespace

Color fromHex(std::uint32_t rgb) {
    auto const channel = [&](int shift) {
        float const s = static_cast<float>(rgb >> shift & 0xFF) / 255;
        return s <= 0.04045F ? s / 12.92F : std::pow((s + 0.055F) / 1.055F, 2.4F);
    };
    return {channel(16), channel(8), channel(0)};
}

Color mix(Color const& a, Color const& b, float t) {
    return a * (1 - t) + b * t;
}

Color fromHue(float lightness, float chroma, float hue) {
    // Oklab to linear sRGB, by the matrices that B. Ottosson published in 2020.
    float const a = chroma * std::cos(hue);
    float const b = chroma * std::sin(hue);
    float const l = lightness + 0.3963377774F * a + 0.2158037573F * b;
    float const m = lightness - 0.1055613458F * a - 0.0638541728F * b;
    float const s = lightness - 0.0894841775F * a - 1.2914855480F * b;
    float const l3 = l * l * l;
    float const m3 = m * m * m;
    float const s3 = s * s * s;
    auto const cut = [](float v) { return std::clamp(v, 0.0F, 1.0F); };
    return {cut(4.0767416621F * l3 - 3.3077115913F * m3 + 0.2309699292F * s3),
            cut(-1.2684380046F * l3 + 2.6097574011F * m3 - 0.3413193965F * s3),
            cut(-0.0041960863F * l3 - 0.7034186147F * m3 + 1.7076147010F * s3)};
}

Color twoSided(float value, float scale) {
    static std::array const inside{fromHex(0xFDEBD0), fromHex(0xF39C3D), fromHex(0x8C3B0A)};
    static std::array const outside{fromHex(0xEAF2FA), fromHex(0x6BA4D8), fromHex(0x143C6E)};
    if (std::isnan(value)) return {0.5F, 0.5F, 0.5F};
    float const t = 2 * (1 - std::exp(-std::fabs(value) / scale));
    auto const& ramp = value < 0 ? inside : outside;
    return t < 1 ? mix(ramp[0], ramp[1], t) : mix(ramp[1], ramp[2], t - 1);
}

Color heat(float t) {
    static std::array const ramp{fromHex(0x2B0F54), fromHex(0x3B4F8A), fromHex(0x218F8B),
                                 fromHex(0x6CCB5F), fromHex(0xFDE84A)};
    return onRamp(ramp, t);
}

Color terrain(float t) {
    static std::array const ramp{fromHex(0x1C3F6E), fromHex(0x2F6F9F), fromHex(0x79B4C4),
                                 fromHex(0xE3D9AE), fromHex(0x86A85C), fromHex(0x4F7D47),
                                 fromHex(0x8A7A5C), fromHex(0xB5A793), fromHex(0xFAFAF7)};
    return onRamp(ramp, t);
}

Color marble(float t) {
    static std::array const ramp{fromHex(0x232A33), fromHex(0x5F6B78), fromHex(0xB4BCC3),
                                 fromHex(0xE6E6E3), fromHex(0xF8F6F1), fromHex(0xFFFFFF)};
    return onRamp(ramp, t);
}

Color wood(float t) {
    static std::array const ramp{fromHex(0xE9C48F), fromHex(0xD9A766), fromHex(0xB97A3F),
                                 fromHex(0x7A4522)};
    return onRamp(ramp, t);
}

Color pigment(float t) {
    static std::array const ramp{fromHex(0x16324F), fromHex(0x2E6E9E), fromHex(0x8FC1D4),
                                 fromHex(0xF6ECD9), fromHex(0xE9B44C), fromHex(0xC8553D)};
    if (!(t > 0)) return ramp.front();
    float const place = std::min(t, 1.0F) * static_cast<float>(ramp.size());
    return ramp[std::min(static_cast<std::size_t>(place), ramp.size() - 1)];
}

}  // namespace drawing
