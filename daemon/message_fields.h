// Typed access to the members of a request object, with the error texts
// that go back to the peer.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include <json/json.h>

namespace lumokitd {

// Each reader returns false with `error` set when the member has the wrong
// type, or is missing and `required`. A missing optional member leaves
// `out` unchanged.
bool read_uint32(const Json::Value& msg, const char* name, bool required, uint32_t* out,
                 std::string* error);
bool read_int32(const Json::Value& msg, const char* name, bool required, int32_t* out,
                std::string* error);
bool read_string(const Json::Value& msg, const char* name, bool required, std::string* out,
                 std::string* error);
bool read_bool(const Json::Value& msg, const char* name, bool required, bool* out,
               std::string* error);

// The "op" member of a request; false with `error` when it is missing or
// not a string, or when the request is not an object.
bool read_op(const Json::Value& msg, std::string* op, std::string* error);

// Parses a request and reads its "op"; false with `error` set to the text
// that goes back when it is not JSON or has no usable "op".
bool read_request(const char* data, size_t length, Json::Value* msg, std::string* op,
                  std::string* error);

}  // namespace lumokitd
