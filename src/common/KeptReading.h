// SPDX-License-Identifier: Apache-2.0
#ifndef NIMBREL2_COMMON_KEPTREADING_H
#define NIMBREL2_COMMON_KEPTREADING_H

#include <algorithm>
#include <cstdint>
#include <mutex>
#include <utility>
#include <vector>

#include "hal/HAL.h"

namespace Nimbrel2 {

/// One reading of a bus, kept between the call that asks for its size and the call that fetches it.
/// @par Threads  Any. A leaf mutex, never held during a HAL call.
template <class Record>
class KeptReading {
public:
    void Keep(std::vector<Record> records, std::uint32_t generation) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_records = std::move(records);
        m_generation = generation;
        m_kept = true;
    }

    /// Hands out what the query kept, if the bus is still of that generation.
    /// @param count  In: room in records. Out: the number of records.
    std::uint32_t Fetch(std::uint32_t generationNow, std::uint64_t* count, Record* records) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_kept || *count < m_records.size()) {
            return HAL_INVALID_ARGUMENT;
        }
        if (generationNow != m_generation) {
            return HAL_BUS_CHANGED;
        }
        std::copy(m_records.begin(), m_records.end(), records);
        *count = m_records.size();
        return HAL_OK;
    }

private:
    std::mutex m_mutex;
    std::vector<Record> m_records;
    std::uint32_t m_generation = 0;
    bool m_kept = false;
};

}  // namespace Nimbrel2

#endif
