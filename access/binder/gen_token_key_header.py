#!/usr/bin/env python3
"""Writes lumokit_token_key.h for the Android build: the public half of the
RSA-2048 key (exponent 65537) that verifies plugin registration tokens, as
two hexadecimal texts. The host build makes the same header with CMake.

usage: gen_token_key_header.py <key.pem> <out.h>

The PEM may hold "PUBLIC KEY", "RSA PUBLIC KEY", "PRIVATE KEY" (unencrypted
PKCS#8) or "RSA PRIVATE KEY"; only the modulus and exponent are used.
"""

import base64
import re
import sys

RSA_ENCRYPTION_OID = bytes.fromhex("2a864886f70d010101")  # 1.2.840.113549.1.1.1

TAG_INTEGER = 0x02
TAG_BIT_STRING = 0x03
TAG_OCTET_STRING = 0x04
TAG_OID = 0x06
TAG_SEQUENCE = 0x30


class KeyError_(Exception):
    pass


def read_element(data, pos):
    """One DER element at pos: (tag, content, position after it)."""
    if pos + 2 > len(data):
        raise KeyError_("truncated DER element")
    tag = data[pos]
    length = data[pos + 1]
    pos += 2
    if length & 0x80:
        count = length & 0x7F
        if count == 0 or count > 4 or pos + count > len(data):
            raise KeyError_("unsupported DER length")
        length = int.from_bytes(data[pos:pos + count], "big")
        pos += count
    if pos + length > len(data):
        raise KeyError_("truncated DER element")
    return tag, data[pos:pos + length], pos + length


def children(content):
    items = []
    pos = 0
    while pos < len(content):
        tag, body, pos = read_element(content, pos)
        items.append((tag, body))
    return items


def sequence(data, what):
    tag, body, end = read_element(data, 0)
    if tag != TAG_SEQUENCE or end != len(data):
        raise KeyError_(what + ": expected one DER SEQUENCE")
    return children(body)


def integer(item, what):
    tag, body = item
    if tag != TAG_INTEGER or not body:
        raise KeyError_(what + ": expected an INTEGER")
    if body[0] & 0x80:
        raise KeyError_(what + ": negative INTEGER")
    return int.from_bytes(body, "big")


def check_rsa_algorithm(item):
    tag, body = item
    if tag != TAG_SEQUENCE:
        raise KeyError_("algorithm identifier: expected a SEQUENCE")
    parts = children(body)
    if not parts or parts[0] != (TAG_OID, RSA_ENCRYPTION_OID):
        raise KeyError_("not an RSA key")


def from_pkcs1_public(der):
    parts = sequence(der, "RSA public key")
    if len(parts) != 2:
        raise KeyError_("RSA public key: expected modulus and exponent")
    return integer(parts[0], "modulus"), integer(parts[1], "exponent")


def from_pkcs1_private(der):
    parts = sequence(der, "RSA private key")
    if len(parts) < 3:
        raise KeyError_("RSA private key: too few fields")
    return integer(parts[1], "modulus"), integer(parts[2], "exponent")


def from_spki(der):
    parts = sequence(der, "public key")
    if len(parts) != 2:
        raise KeyError_("public key: expected algorithm and key")
    check_rsa_algorithm(parts[0])
    tag, body = parts[1]
    if tag != TAG_BIT_STRING or not body or body[0] != 0:
        raise KeyError_("public key: expected a BIT STRING")
    return from_pkcs1_public(body[1:])


def from_pkcs8(der):
    parts = sequence(der, "private key")
    if len(parts) < 3:
        raise KeyError_("private key: too few fields")
    check_rsa_algorithm(parts[1])
    tag, body = parts[2]
    if tag != TAG_OCTET_STRING:
        raise KeyError_("private key: expected an OCTET STRING")
    return from_pkcs1_private(body)


READERS = {
    "PUBLIC KEY": from_spki,
    "RSA PUBLIC KEY": from_pkcs1_public,
    "PRIVATE KEY": from_pkcs8,
    "RSA PRIVATE KEY": from_pkcs1_private,
}


def read_key(pem):
    match = re.search(r"-----BEGIN ([A-Z ]+)-----(.*?)-----END \1-----", pem, re.S)
    if not match or match.group(1) not in READERS:
        raise KeyError_("no PEM RSA key (expected PRIVATE KEY, RSA PRIVATE KEY, "
                        "PUBLIC KEY or RSA PUBLIC KEY)")
    if "ENCRYPTED" in match.group(2) or "Proc-Type" in match.group(2):
        raise KeyError_("encrypted keys are not supported")
    try:
        der = base64.b64decode("".join(match.group(2).split()), validate=True)
    except ValueError as err:
        raise KeyError_("bad base64 in PEM: %s" % err)
    return READERS[match.group(1)](der)


def main(argv):
    if len(argv) != 3:
        sys.stderr.write("usage: gen_token_key_header.py <key.pem> <out.h>\n")
        return 2
    key_path, out_path = argv[1], argv[2]
    try:
        with open(key_path, "r", encoding="ascii") as key_file:
            modulus, exponent = read_key(key_file.read())
        if modulus.bit_length() != 2048:
            raise KeyError_("a %d-bit key; tokens carry 256-byte signatures, so the "
                            "key must be RSA-2048" % modulus.bit_length())
        if exponent != 65537:
            raise KeyError_("public exponent %d; the manager's key must use 65537" % exponent)
    except OSError as err:
        sys.stderr.write("%s: cannot read: %s\n" % (key_path, err.strerror))
        return 1
    except (UnicodeDecodeError, KeyError_) as err:
        sys.stderr.write("%s: %s\n" % (key_path, err))
        return 1
    # A leading 00 keeps the value positive when read as a signed big number.
    modulus_hex = "00" + format(modulus, "0512X")
    with open(out_path, "w", encoding="ascii") as out:
        out.write("// Generated from the token key at build time; do not edit.\n"
                  "// Public key that verifies plugin registration tokens.\n"
                  "#pragma once\n\n"
                  "inline constexpr const char* kLumokitTokenModulusHex =\n"
                  "    \"%s\";\n"
                  "inline constexpr const char* kLumokitTokenExponentHex = \"010001\";\n"
                  % modulus_hex)
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
