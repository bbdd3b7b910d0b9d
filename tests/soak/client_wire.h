// The texts a soak client sends and the small readers of what comes back.
#pragma once

#include <cstdint>
#include <string>

#include <json/json.h>

namespace lumokit::soak {

// "0x3005" for slot 5.
std::string opcode_text(uint32_t slot);

// Numbers compared by value: the parser stores them as signed whatever
// their sign, so Json::Value equality with an unsigned would fail.
bool is_uint(const Json::Value& v, uint64_t expected);
bool is_int(const Json::Value& v, int64_t expected);

// "0x" and hexadecimal digits, up to 32 bits.
bool read_hex(const std::string& text, uint32_t* out);

// A perform_task message with its task text, written by hand: the soak
// sends thousands a second.
std::string task_message(uint32_t session, uint32_t transac, uint32_t slot, bool gated,
                         const std::string& nonce);

}  // namespace lumokit::soak
