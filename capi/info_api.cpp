// The library's version and the status codes in words.
#include "velmora_global.h"

namespace {

// One row per status code the C functions return.
const struct {
    long int status;
    const char *text;
} kStatusTexts[] = {
    { 0, "Success" },
    { 1, "Parameter error or unknown controller" },
    { 3, "The controller answered with an error reply" },
    { 4, "The command queue is full (for overwrite: the DNC memory is full)" },
    { 6, "Wrong client mode for this call" },
    { 7, "Not connected" },
    { 100, "Controller execution alarm" },
    { 111, "No reply within the reply time-out" },
    { 112, "No oscilloscope points" },
};

} // namespace

extern "C" {

const char *VELMORA_CALL velmoraVersion(void)
{
    return VELMORA_VERSION_STRING;
}

const char *VELMORA_CALL velmoraStatusText(long int status)
{
    for (const auto &row : kStatusTexts)
        if (row.status == status)
            return row.text;
    return "Unknown status code";
}

} // extern "C"
