// API definitions and tokens as a plugin keeps them in files: loading them
// and checking a definition before it is registered.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <json/json.h>

namespace lumokit {

// Reads an API definition file: either the array of API entries itself or an
// object whose "api_def" member is that array. Returns the array. Throws
// PluginError(Invalid) with the file name and the reason.
Json::Value load_api_def(const std::string& path);

// Checks what the manager would otherwise refuse without saying why: every
// entry is an object whose "opcode" is "0x" hexadecimal text equal to
// `opcode`, and whose "subsystems" is an array of objects with an unsigned
// "id". False with a reason in `error`.
bool check_api_def(const Json::Value& api_def, uint32_t opcode, std::string* error);

// The subsystem ids an API definition declares, in order, without repeats.
std::vector<uint32_t> api_def_subsystems(const Json::Value& api_def);

// Reads a token file (hexadecimal text as the signing tool prints it) with
// white space removed. Throws PluginError(Invalid) when the file can't be
// read, is empty or holds anything but hexadecimal digits.
std::string load_token(const std::string& path);

}  // namespace lumokit
