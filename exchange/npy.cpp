#include "npy.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <mutex>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "npy_header.h"
#include "numbers.h"

namespace zel {

using Orvane::Math::float3;

namespace {

constexpr bool kIsBigEndian = std::endian::native == std::endian::big;

/// Memory of a file, unmapped at the end.
class Mapping {
public:
    Mapping() = default;
    Mapping(Mapping const&) = delete;
    Mapping& operator=(Mapping const&) = delete;
    ~Mapping() {
        if (m_begin != nullptr) munmap(m_begin, m_size);
    }
    /// Returns false, with errno, if the file cannot be mapped.
    bool map(int file, std::uint64_t size, bool isWritable) {
        void* const begin = mmap(nullptr, size, isWritable ? PROT_READ | PROT_WRITE : PROT_READ,
                                 MAP_SHARED, file, 0);
        if (begin == MAP_FAILED) return false;
        m_begin = static_cast<std::byte*>(begin);
        m_size = size;
        return true;
    }
    std::byte* begin() const { return m_begin; }

private:
    std::byte* m_begin = nullptr;
    std::size_t m_size = 0;
};

[[noreturn]] void failWithShape(NpyLayout const& layout) {
    throw std::logic_error("zel::NpyArray: an array of shape " + detail::shapeText(layout.shape) +
                           " holds no positions; their shape is (n, 3)");
}

}  // namespace

struct NpyArray::State {
    explicit State(detail::ByteSource source_)
        : source(std::move(source_)), layout(detail::readNpyHeader(source)), count(layout.count()) {
    }

    /// Reads `count` numbers of the file, each to a float `stride` after the one before.
    void read(std::uint64_t first, std::size_t numbers, float* to, std::ptrdiff_t stride) const {
        std::byte block[1 << 14];
        std::size_t const width = static_cast<std::size_t>(layout.bytesPerNumber());
        while (numbers > 0) {
            std::size_t const step = std::min(numbers, sizeof block / width);
            source.readAt(layout.dataOffset + first * width, std::span(block, step * width));
            for (std::size_t i = 0; i < step; ++i, to += stride)
                *to = layout.isDouble ? detail::nearestFloat(detail::loadDouble(block + i * width,
                                                                                layout.isBigEndian))
                                      : detail::loadFloat(block + i * width, layout.isBigEndian);
            first += step;
            numbers -= step;
        }
    }
    bool isPoints() const {
        std::size_t const axes = layout.shape.size();
        return (axes == 2 || (axes > 2 && !layout.isFortran)) && layout.shape.back() == 3;
    }

    detail::ByteSource source;
    NpyLayout layout;
    std::uint64_t count;
    std::once_flag mapped;
    Mapping mapping;
};

NpyArray::NpyArray(std::filesystem::path const& path) {
    detail::ByteSource source(path);
    if (!source.size()) source.fail({}, "must be a regular file, opened by its name");
    m_state = std::make_unique<State>(std::move(source));
}
NpyArray::NpyArray(std::span<std::byte const> memory, std::string name)
    : m_state(std::make_unique<State>(detail::ByteSource(memory, std::move(name)))) {}
NpyArray::NpyArray(NpyArray&&) noexcept = default;
NpyArray& NpyArray::operator=(NpyArray&&) noexcept = default;
NpyArray::~NpyArray() = default;

NpyLayout const& NpyArray::layout() const {
    return m_state->layout;
}
bool NpyArray::isPoints() const {
    return m_state->isPoints();
}
std::uint64_t NpyArray::size() const {
    return isPoints() ? m_state->count / 3 : m_state->count;
}

void NpyArray::read(std::uint64_t first, std::span<float> numbers) const {
    if (first > m_state->count || numbers.size() > m_state->count - first)
        throw std::out_of_range("zel::NpyArray: there are only " + std::to_string(m_state->count) +
                                " numbers");
    m_state->read(first, numbers.size(), numbers.data(), 1);
}

void NpyArray::readPoints(std::uint64_t first, std::span<float3> points) const {
    if (!isPoints()) failWithShape(m_state->layout);
    std::uint64_t const count = size();
    if (first > count || points.size() > count - first)
        throw std::out_of_range("zel::NpyArray: there are only " + std::to_string(count) +
                                " positions");
    if (points.empty()) return;
    float* const x = &points.front().x;
    if (!m_state->layout.isFortran) return m_state->read(3 * first, 3 * points.size(), x, 1);
    for (std::size_t c = 0; c < 3; ++c) m_state->read(first + c * count, points.size(), x + c, 3);
}

bool NpyArray::isViewable() const {
    NpyLayout const& layout = m_state->layout;
    auto const address = reinterpret_cast<std::uintptr_t>(m_state->source.memory());
    return !layout.isDouble && layout.isBigEndian == kIsBigEndian &&
           (address + layout.dataOffset) % alignof(float) == 0;
}

std::span<float const> NpyArray::view() const {
    if (!isViewable())
        throw std::logic_error(
            "zel::NpyArray: these numbers are no floats in this machine's memory");
    State& state = *m_state;
    if (state.count == 0) return {};
    std::byte const* begin = state.source.memory();
    if (begin == nullptr) {
        std::call_once(state.mapped, [&] {
            if (!state.mapping.map(state.source.descriptor(), *state.source.size(), false))
                state.source.fail({},
                                  "cannot be mapped: " + std::generic_category().message(errno));
        });
        begin = state.mapping.begin();
    }
    return {reinterpret_cast<float const*>(begin + state.layout.dataOffset), state.count};
}

PointView NpyArray::viewPoints() const {
    if (!isPoints()) failWithShape(m_state->layout);
    std::span<float const> const all = view();
    if (all.empty()) return {};
    std::size_t const count = all.size() / 3;
    float const* const x = all.data();
    if (m_state->layout.isFortran) return {x, x + count, x + 2 * count, 1, count};
    return {x, x + 1, x + 2, 3, count};
}

struct NpyWriter::State {
    State(std::filesystem::path const& path, NpyLayout const& layout_)
        : file(path), layout(layout_), grows(!layout.shape.empty() && layout.shape[0] == kGrows) {
        if (layout.isBigEndian != kIsBigEndian)
            throw std::invalid_argument(
                "zel::NpyWriter: only this machine's byte order is written");
        if (grows) {
            if (file.isDirect())
                throw FileError(file.name(), {},
                                "an array that grows cannot be written to a pipe or a device");
            if (layout.isFortran && layout.shape.size() > 1)
                throw std::invalid_argument(
                    "zel::NpyWriter: an array that grows has its first axis outermost");
            layout.shape[0] = 1;
            row = layout.count();
            layout.shape[0] = 0;
        } else {
            count = layout.count();
        }
        std::string const header = npyHeader(layout, grows);
        layout.dataOffset = header.size();
        file.write(header);
    }

    void append(float const* numbers, std::size_t size) {
        if (!grows && size > count - written)
            throw std::length_error("zel::NpyWriter: more numbers than the " +
                                    std::to_string(count) + " of the shape");
        if (mapping.begin() != nullptr)
            throw std::logic_error("zel::NpyWriter: the file is mapped already");
        std::span const source(numbers, size);
        if (!layout.isDouble) {
            file.write(std::as_bytes(source));
        } else {
            double block[1 << 9];
            for (std::size_t i = 0; i < size;) {
                std::size_t const step = std::min(std::size(block), size - i);
                std::copy_n(numbers + i, step, block);
                file.write(std::as_bytes(std::span(block, step)));
                i += step;
            }
        }
        written += size;
    }

    OutputFile file;
    NpyLayout layout;
    bool grows;
    std::uint64_t row = 1;      // the numbers of one step of the first axis, if the file grows
    std::uint64_t count = 0;    // of all numbers, if it does not
    std::uint64_t written = 0;  // of the numbers that write() was given
    Mapping mapping;
};

NpyWriter::NpyWriter(std::filesystem::path const& path, NpyLayout const& layout)
    : m_state(std::make_unique<State>(path, layout)) {}
NpyWriter::~NpyWriter() = default;

void NpyWriter::write(std::span<float const> numbers) {
    m_state->append(numbers.data(), numbers.size());
}
void NpyWriter::write(std::span<float3 const> vectors) {
    m_state->append(vectors.empty() ? nullptr : &vectors.front().x, 3 * vectors.size());
}

std::span<float> NpyWriter::map(bool reserve) {
    State& state = *m_state;
    if (state.layout.isDouble || state.grows || state.written > 0)
        throw std::logic_error("zel::NpyWriter: only a file of floats, of known size and not yet "
                               "begun, can be mapped");
    if (state.count == 0) return {};
    if (state.mapping.begin() == nullptr) {
        std::uint64_t const size = state.layout.dataOffset + state.count * sizeof(float);
        int const file = fileno(state.file.stream());
        auto const fail = [&](int error) {
            throw FileError(state.file.name(), {},
                            "cannot be mapped for " + std::to_string(size) +
                                " bytes: " + std::generic_category().message(error));
        };
        if (std::fflush(state.file.stream()) != 0 || ftruncate(file, static_cast<off_t>(size)) != 0)
            fail(errno);
        if (reserve)
            if (int const error = posix_fallocate(file, 0, static_cast<off_t>(size)); error != 0)
                fail(error);
        if (!state.mapping.map(file, size, true)) fail(errno);
    }
    return {reinterpret_cast<float*>(state.mapping.begin() + state.layout.dataOffset), state.count};
}

void NpyWriter::commit() {
    State& state = *m_state;
    if (state.grows) {
        if (state.row == 0 ? state.written > 0 : state.written % state.row != 0)
            throw std::logic_error("zel::NpyWriter: " + std::to_string(state.written) +
                                   " numbers are no whole rows of " + std::to_string(state.row));
        state.layout.shape[0] = state.row == 0 ? 0 : state.written / state.row;
        std::string const header = npyHeader(state.layout, true);
        state.file.rewriteBegin(std::as_bytes(std::span(header)));
    } else if (state.mapping.begin() == nullptr && state.written < state.count) {
        throw std::logic_error("zel::NpyWriter: only " + std::to_string(state.written) + " of " +
                               std::to_string(state.count) + " numbers are written");
    }
    state.file.commit();
}

}  // namespace zel
