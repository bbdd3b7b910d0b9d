// Registration tokens against the manager's verifier: exactly the covered
// opcode and API definition pass, and each refusal logs its reason. The
// table holds nothing particular to one libcrypto, so it serves any build.
// The manager refusing tokens on its plugin socket is proved in the
// integration and end-to-end tests, lumokit-token's commands in
// tests/e2e/token_tool_test.cc.
#include "token_verify.h"

#include <gtest/gtest.h>
#include <json/json.h>

#include <string>

#include "Service.h"
#include "conformance_token.pb.h"
#include "manager_harness.h"
#include "token_sign.h"
#include "token_signer.h"

namespace {

using lumokit::test::LogCapture;
using lumokit::test::make_token;
using lumokit::test::parse_json;
using lumokit::test::sign_bytes;
using lumokit::test::sign_token;

const std::string kKeyPem = LUMOKIT_TEST_KEY_PEM;
const char kAuthenticity[] = "Failed to validate token authenticity.";
const char kNotForDef[] = "Token is not valid for provided json api definition.";
const char kNotFor26[] = "Token is not valid for provided opcode: 26";

// Opcode 26 (0x1A) as a plugin would declare it, written compactly.
const char kCameraDef[] =
    R"([{"name":"camera.capture","opcode":"0x1A","subsystems":[{"id":1,"modes":["still","burst"]},{"id":2}]}])";
// The same definition with other spacing, line breaks and member order.
const char kCameraDefSpaced[] = R"([
  {
    "subsystems" : [ { "modes" : [ "still" , "burst" ] , "id" : 1 } ,
                     { "id" : 2 } ],
    "opcode"     : "0x1A",
    "name"       : "camera.capture"
  }
])";
const char kAudioDef[] = R"([{"name":"audio.route","opcode":"0x1B","subsystems":[{"id":7}]}])";

// An "AUTH" message; a null token or definition leaves its member out.
Json::Value auth_message(const Json::Value& token, const std::string& opcode, const Json::Value& api_def) {
  Json::Value message(Json::objectValue);
  message["req_type"] = "AUTH";
  message["Service_Id"] = 102;
  message["Opcode"] = opcode;
  if (!token.isNull()) message["Token"] = token;
  if (!api_def.isNull()) message["api_def"] = api_def;
  return message;
}

std::string digest_of(const Json::Value& api_def) {
  return lumokit::token::sha1_hex(lumokit::token::compact_api_def(api_def));
}

// One hex digit changed, so the byte it encodes differs.
std::string flip_digit(std::string token, size_t index) {
  token[index] = token[index] == '0' ? '1' : '0';
  return token;
}

// White space of every kind the verifier skips, spread through the text.
std::string spread_white_space(const std::string& token) {
  static const char kSpaces[] = " \t\n\v\f\r";
  std::string out = "\n  ";
  for (size_t i = 0; i < token.size(); ++i) {
    out.push_back(token[i]);
    if (i % 7 == 3) out.push_back(kSpaces[i % 6]);
  }
  return out + " \r\n";
}

// The verifier's last error line while `log` was capturing.
std::string last_error(const LogCapture& log) {
  const std::string prefix = std::string("E/") + kTagLink + ": ";
  std::string last;
  for (const std::string& line : log.lines()) {
    if (line.rfind(prefix, 0) == 0) last = line.substr(prefix.size());
  }
  return last;
}

TEST(TokenVerify, VerdictAndReasonForEachKindOfToken) {
  const Json::Value camera = parse_json(kCameraDef);
  const Json::Value audio = parse_json(kAudioDef);
  const std::string good = make_token(26, camera);
  const std::string both = sign_token(kKeyPem, {{26, digest_of(camera)}, {27, digest_of(audio)}});
  std::string upper_digest = digest_of(camera);
  for (char& c : upper_digest) c = static_cast<char>(lumokit::toupper(c));
  Json::Value renamed = camera;  // a member name changed
  renamed[0]["title"] = renamed[0]["name"];
  renamed[0].removeMember("name");
  Json::Value changed = camera;  // a member value changed
  changed[0]["subsystems"][1]["id"] = 3;
  Json::Value listed(Json::arrayValue);
  listed.append(good);
  std::string bad_pair = good;
  bad_pair.replace(600, 2, "zz");
  // A signed byte below 0x10 written as "+d" and as "dg": the base-16
  // conversion reads both as the digit alone, so the token stays valid.
  std::string signed_pair = good, digit_pair = good;
  for (size_t i = 512; i + 1 < good.size(); i += 2) {
    if (good[i] != '0') continue;
    signed_pair.replace(i, 2, std::string("+") + good[i + 1]);
    digit_pair.replace(i, 2, std::string(1, good[i + 1]) + "g");
    break;
  }
  ASSERT_NE(signed_pair, good) << "no signed byte below 0x10 to rewrite";
  conformance::Token partial;  // names the right digest but lacks the required texts
  (*partial.mutable_op_json())[26] = digest_of(camera);
  std::string partial_bytes;
  partial.SerializePartialToString(&partial_bytes);

  const struct {
    const char* name;
    Json::Value message;
    const char* error;  // the verifier's last error line; null when it passes
  } cases[] = {
      {"valid", auth_message(good, "26", camera), nullptr},
      {"second of two opcodes", auth_message(both, "27", audio), nullptr},
      {"definition of the other opcode", auth_message(both, "27", camera), kNotForDef},
      {"opcode not covered", auth_message(both, "28", audio), "Token is not valid for provided opcode: 28"},
      {"white space throughout", auth_message(spread_white_space(good), "26", camera), nullptr},
      {"api_def spaced differently", auth_message(good, "26", parse_json(kCameraDefSpaced)), nullptr},
      {"signature byte flipped", auth_message(flip_digit(good, 10), "26", camera), kAuthenticity},
      {"signed byte flipped", auth_message(flip_digit(good, good.size() - 3), "26", camera), kAuthenticity},
      {"odd trailing digit", auth_message(good + "0", "26", camera), kAuthenticity},
      // "0x1A" reads as decimal 0.
      {"opcode given in hex", auth_message(good, "0x1A", camera), "Token is not valid for provided opcode: 0x1A"},
      {"opcode not a number", auth_message(good, "abc", camera), "Opcode is not valid: abc"},
      {"member value changed", auth_message(good, "26", changed), kNotForDef},
      {"member name changed", auth_message(good, "26", renamed), kNotForDef},
      {"api_def missing", auth_message(good, "26", Json::Value()), kNotForDef},
      {"upper-case digest", auth_message(sign_token(kKeyPem, {{26, upper_digest}}), "26", camera), kNotForDef},
      {"511 digits and white space",
       auth_message(spread_white_space(good.substr(0, 511)) + std::string(40, ' '), "26", camera),
       "Invalid token."},
      {"token missing", auth_message(Json::Value(), "26", camera), "Invalid token."},
      {"token not text", auth_message(listed, "26", camera), "Invalid token."},
      {"pair without hex digit", auth_message(bad_pair, "26", camera), "Invalid token."},
      {"pair with a sign", auth_message(signed_pair, "26", camera), nullptr},
      {"pair with one digit", auth_message(digit_pair, "26", camera), nullptr},
      // Exactly 512 digits: long enough, covers nothing.
      {"signed empty message", auth_message(sign_bytes(kKeyPem, ""), "26", camera), kNotFor26},
      {"signed bytes not a token",
       auth_message(sign_bytes(kKeyPem, std::string("\xff\xff\xff\x07 garbage", 12)), "26", camera), kNotFor26},
      {"token lacks required fields", auth_message(sign_bytes(kKeyPem, partial_bytes), "26", camera), kNotFor26},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    LogCapture log;
    EXPECT_EQ(verify_registration_token(c.message), c.error == nullptr ? 0 : -1);
    EXPECT_EQ(last_error(log), c.error == nullptr ? "" : c.error);
  }
}

}  // namespace
