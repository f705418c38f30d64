// SPDX-License-Identifier: MIT
#include <vxutils/dio_status.h>

#include <vxutils/dio.h>

#include <cstddef>
#include <cstdint>
#include <optional>

#include "vxutils/internal/assertion.h"

namespace {

constexpr const char *source = "vxutils/dio_status";

// The layout is shared between programs.
static_assert(sizeof(dio_status_half) == 16 && offsetof(dio_status, out) == 16 && sizeof(dio_status) == 32);

// Place of a line's bit in a half.
struct IndexMask {
    size_t index;
    uint8_t mask;
};

// Returns nothing for lines 97 to 99, whose bits would lie in the neighbouring half.
// Quirk Q87.
std::optional<IndexMask> bitOf(unsigned int dio) {
    const size_t index = (dio - 1) / 8;
    if (index >= sizeof(dio_status_half::mask)) return std::nullopt;
    return IndexMask{index, static_cast<uint8_t>(1U << ((dio - 1) % 8))};
}

std::optional<IndexMask> dio_getIndexMaskIn(unsigned int dio) {
    VX_ASSERT(dio <= DIORONUMBER_MAX, "dio <= DIORONUMBER_MAX", source);
    VX_ASSERT(dio >= DIORONUMBER_MIN, "dio >= DIORONUMBER_MIN", source);
    return bitOf(dio);
}

std::optional<IndexMask> dio_getIndexMaskOut(unsigned int dio) {
    VX_ASSERT(dio <= DIORWNUMBER_MAX, "dio <= DIORWNUMBER_MAX", source);
    VX_ASSERT(dio >= DIORWNUMBER_MIN, "dio >= DIORWNUMBER_MIN", source);
    return bitOf(dio);
}

int bit(const dio_status_half &half, const std::optional<IndexMask> &place) {
    return place && (half.mask[place->index] & place->mask) != 0 ? 1 : 0;
}

void setBit(dio_status_half &half, const std::optional<IndexMask> &place, unsigned int value) {
    if (!place) return;
    uint8_t &byte = half.mask[place->index];
    byte = static_cast<uint8_t>(value != 0 ? byte | place->mask : byte & ~place->mask);
}

}  // namespace

extern "C" {

int dio_getStatus(dio_status *status) {
    VX_ASSERT(status != nullptr, "status != NULL", source);
    const int result = dio_getStatusIn(&status->in);
    return result != DIO_OK ? result : dio_getStatusOut(&status->out);
}

int dio_getStatusIn(dio_status_half *status) {
    VX_ASSERT(status != nullptr, "status != NULL", source);
    if (const int result = dio_roCount(&status->count); result != DIO_OK) return result;
    VX_ASSERT(status->count <= MAX_DIO_IN_COUNT, "status->count <= MAX_DIO_IN_COUNT", source);
    for (unsigned int line = DIORONUMBER_MIN; line <= status->count; ++line) {
        unsigned char on = 0;
        if (const int result = dio_roValue(line, &on); result != DIO_OK) return result;
        dio_setInValueInStatus(status, line, on);
    }
    return DIO_OK;
}

int dio_getStatusOut(dio_status_half *status) {
    VX_ASSERT(status != nullptr, "status != NULL", source);
    if (const int result = dio_rwCount(&status->count); result != DIO_OK) return result;
    VX_ASSERT(status->count <= MAX_DIO_OUT_COUNT, "status->count <= MAX_DIO_OUT_COUNT", source);
    for (unsigned int line = DIORWNUMBER_MIN; line <= status->count; ++line) {
        unsigned char on = 0;
        if (const int result = dio_rwValue(static_cast<int>(line), &on); result != DIO_OK) return result;
        dio_setOutValueInStatus(status, line, on);
    }
    return DIO_OK;
}

int dio_setStatusOut(dio_status_half *status) {
    VX_ASSERT(status != nullptr, "status != NULL", source);
    VX_ASSERT(status->count <= MAX_DIO_OUT_COUNT, "status->count <= MAX_DIO_OUT_COUNT", source);
    for (unsigned int line = DIORWNUMBER_MIN; line <= status->count; ++line) {
        const int value = dio_getOutValueFromStatus(status, line);
        const int result = dio_setValue(static_cast<int>(line), static_cast<unsigned int>(value));
        if (result != DIO_OK) return result;
    }
    return DIO_OK;
}

int dio_getInValueFromStatus(const dio_status_half *status, unsigned int dio) {
    VX_ASSERT(status != nullptr, "status != NULL", source);
    VX_ASSERT(dio < status->count + DIORONUMBER_MIN, "dio < status->count + DIORONUMBER_MIN", source);
    return bit(*status, dio_getIndexMaskIn(dio));
}

int dio_getOutValueFromStatus(const dio_status_half *status, unsigned int dio) {
    VX_ASSERT(status != nullptr, "status != NULL", source);
    VX_ASSERT(dio < status->count + DIORWNUMBER_MIN, "dio < status->count + DIORWNUMBER_MIN", source);
    return bit(*status, dio_getIndexMaskOut(dio));
}

void dio_setInValueInStatus(dio_status_half *status, unsigned int dio, unsigned int value) {
    VX_ASSERT(status != nullptr, "status != NULL", source);
    VX_ASSERT(dio < status->count + DIORONUMBER_MIN, "dio < status->count + DIORONUMBER_MIN", source);
    setBit(*status, dio_getIndexMaskIn(dio), value);
}

void dio_setOutValueInStatus(dio_status_half *status, unsigned int dio, unsigned int value) {
    VX_ASSERT(status != nullptr, "status != NULL", source);
    VX_ASSERT(dio < status->count + DIORWNUMBER_MIN, "dio < status->count + DIORWNUMBER_MIN", source);
    setBit(*status, dio_getIndexMaskOut(dio), value);
}

}  // extern "C"
