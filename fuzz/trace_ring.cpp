// Fuzzes the reader of a card's shared memory file that kt4trace and the display calls share:
// the area header, its slot directory, the rings table's directory and the rings themselves.
//
// Input, first byte the mode:
//   0  patches onto a well-formed area holding traced lines: then records of
//      [offset: 4 bytes big-endian][length: 1 byte][bytes], each written into the image at
//      offset modulo the image size (cut at its end). Reaches deep into rings whose header and
//      directory are sound.
//   1  the rest is the whole file image.
#include "common/kt4_be.h"
#include "log/trace_ring.h"
#include "platform/shm_area.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <vector>

namespace {

struct Counter {
    size_t slots = 0;
    size_t bytes = 0;
};

void count_slot(const char *text, size_t len, uint32_t, uint32_t, void *arg) {
    auto *c = static_cast<Counter *>(arg);
    ++c->slots;
    // Touch every byte handed out: an over-read shows up here under the sanitizers.
    for (size_t i = 0; i < len; ++i)
        c->bytes += static_cast<unsigned char>(text[i]) != 0;
}

// Reads an image the way kt4trace does.
void read_image(const std::byte *image, size_t bytes) {
    kt4::shm::View view;
    const char *why = nullptr;
    if (!kt4::shm::validate(image, bytes, view, &why)) return;
    size_t ringsBytes = 0;
    const std::byte *rings = kt4::shm::table_in(view, kt4::shm::kTraceRings, &ringsBytes);
    if (rings == nullptr) return;
    // Every kind rule (exact, 7, 8, 17, nonsense) once, with and without a module filter.
    static constexpr struct {
        int module, kind;
    } kQueries[] = {{kt4::trace::kAnyModule, 17}, {38, 7}, {0, 8}, {141, 11}, {1, -1}};
    for (int entry : {kt4::trace::kRingSoftware, 1, kt4::trace::kRingHardware}) {
        const kt4::trace::RingBlock *ring = kt4::trace::ring_in(rings, ringsBytes, entry, &why);
        if (ring == nullptr) continue;
        for (const auto &q : kQueries) {
            Counter c;
            kt4::trace::replay(*ring, q.module, q.kind, count_slot, &c, &why);
        }
    }
}

// A laid-out area whose software ring has wrapped and whose hardware ring holds a few lines.
std::vector<std::byte> &base_image() {
    static std::vector<std::byte> image = [] {
        std::vector<std::byte> img(kt4::shm::min_area_size());
        kt4::shm::format(img.data(), img.size());
        kt4::shm::seal(img.data());
        kt4::shm::View view;
        kt4::shm::validate(img.data(), img.size(), view, nullptr);
        size_t n = 0;
        auto *rings = const_cast<std::byte *>(kt4::shm::table_in(view, kt4::shm::kTraceRings, &n));
        kt4::trace::RingBlock *sw = kt4::trace::ring_in(rings, n, kt4::trace::kRingSoftware);
        for (int i = 0; i < kt4::trace::kRingSlots; ++i) {
            sw->module[i] = static_cast<uint32_t>(i % 142);
            sw->kind[i] = static_cast<uint32_t>(2 + i % 15);
            std::snprintf(sw->text[i], kt4::trace::kSlotBytes,
                          "[1/2 3:4:5] SYS-(t):CPBLOB:0: line %d\r\n", i);
        }
        sw->next = 17;
        sw->wrapped = 1;
        kt4::trace::RingBlock *hw = kt4::trace::ring_in(rings, n, kt4::trace::kRingHardware);
        for (int i = 0; i < 5; ++i) {
            hw->module[i] = 38;
            hw->kind[i] = 11;
            std::memset(hw->text[i], 'h', kt4::trace::kSlotBytes); // no NUL at all
        }
        hw->next = 5;
        return img;
    }();
    return image;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 1) return 0;
    if (data[0] == 1) {
        std::vector<std::byte> image(size - 1);
        if (!image.empty()) std::memcpy(image.data(), data + 1, image.size());
        read_image(image.data(), image.size());
        return 0;
    }
    if (data[0] != 0) return 0;

    std::vector<std::byte> &image = base_image();
    static const std::vector<std::byte> pristine = image;
    struct Patch {
        size_t at, len;
    };
    std::vector<Patch> applied;
    size_t pos = 1;
    while (pos + 5 <= size) {
        size_t at = kt4::load_be32(data + pos) % image.size();
        size_t len = data[pos + 4];
        pos += 5;
        if (len > size - pos) len = size - pos;
        if (len > image.size() - at) len = image.size() - at;
        std::memcpy(image.data() + at, data + pos, len);
        applied.push_back({at, len});
        pos += len;
    }
    read_image(image.data(), image.size());
    for (const Patch &p : applied)
        std::memcpy(image.data() + p.at, pristine.data() + p.at, p.len);
    return 0;
}
