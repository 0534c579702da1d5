#include "inspect/record_json.h"

namespace inspect {

std::string hexOf(const void *bytes, std::size_t size)
{
    static const char digits[] = "0123456789abcdef";
    std::string out;
    for (const unsigned char byte : std::string_view(static_cast<const char *>(bytes), size)) {
        out += digits[byte >> 4];
        out += digits[byte & 15];
    }
    return out;
}

static unsigned digitOf(char c)
{
    if (c >= '0' && c <= '9') {
        return static_cast<unsigned>(c - '0');
    }
    if (c >= 'a' && c <= 'f') {
        return static_cast<unsigned>(c - 'a') + 10;
    }
    throw std::runtime_error(std::string("'") + c + "' is no hexadecimal digit");
}

std::string bytesIn(const Value &object, const char *name)
{
    const auto &digits = object.at(name).get_ref<const std::string &>();
    if (digits.size() % 2 != 0) {
        throw std::runtime_error(std::string(name) + " has half a byte");
    }
    std::string out;
    for (std::size_t i = 0; i < digits.size(); i += 2) {
        out += static_cast<char>(digitOf(digits[i]) << 4 | digitOf(digits[i + 1]));
    }
    return out;
}

std::string textOf(std::string_view text)
{
    std::string out; // UTF-8 of U+0000 to U+00FF
    for (const unsigned char byte : text) {
        if (byte >= 0x80) {
            out += static_cast<char>(0xC0 | byte >> 6);
        }
        out += static_cast<char>(byte < 0x80 ? byte : 0x80 | (byte & 0x3F));
    }
    return out;
}

std::string textIn(const Value &object, const char *name)
{
    const auto &text = object.at(name).get_ref<const std::string &>();
    std::string out;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const auto byte = static_cast<unsigned char>(text[i]);
        if (byte < 0x80) {
            out += text[i];
        } else if ((byte & 0xFC) == 0xC0 && i + 1 < text.size()) {
            out += static_cast<char>((byte & 3) << 6 | (text[++i] & 0x3F));
        } else {
            throw std::runtime_error(std::string(name) + " is not one character a byte");
        }
    }
    return out;
}

} // namespace inspect
