// Feeds arbitrary modem manager output to the number reader and the cell
// range arithmetic that consumes its value.
#include "modem/modem_output.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string output(reinterpret_cast<const char*>(data), size);
    int value = 0;
    if (!cbsd::modem::parse_number(output.c_str(), &value)) return 0;
    int frequency = value / 100;
    cbsd::modem::CellRange range = cbsd::modem::compute_cell_range(frequency, value);
    if (std::strlen(range.lowFrequency) >= sizeof range.lowFrequency ||
        std::strlen(range.highFrequency) >= sizeof range.highFrequency ||
        std::strlen(range.bandwidth) >= sizeof range.bandwidth)
        std::abort();
    range = cbsd::modem::compute_cell_range(value, frequency);
    return 0;
}
