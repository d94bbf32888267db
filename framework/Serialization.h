// Little-endian, packed byte streams for saved device state. The reader
// notices a stream that stops delivering, so that truncated or hostile bytes
// make Load fail instead of reading garbage.
#pragma once

#include <cstdint>
#include <cstring>
#include <istream>
#include <ostream>

namespace Orogen {

class StateWriter {
public:
    explicit StateWriter(std::ostream& out) : out(out) {}
    void Bytes(const void* data, size_t size) {
        out.write(static_cast<const char*>(data), static_cast<std::streamsize>(size));
    }
    void U8(uint8_t v) { Bytes(&v, 1); }
    void U16(uint16_t v) {
        unsigned char b[2] = {static_cast<unsigned char>(v), static_cast<unsigned char>(v >> 8)};
        Bytes(b, 2);
    }
    void U32(uint32_t v) {
        unsigned char b[4];
        for (int i = 0; i < 4; ++i) b[i] = static_cast<unsigned char>(v >> (8 * i));
        Bytes(b, 4);
    }
    void F32(float v) {
        uint32_t bits;
        std::memcpy(&bits, &v, 4);
        U32(bits);
    }

private:
    std::ostream& out;
};

class StateReader {
public:
    explicit StateReader(std::istream& in) : in(in) {}
    // False once the stream delivered fewer bytes than asked; the rest of
    // the buffer is then left as it was.
    bool Bytes(void* data, size_t size) {
        if (!ok) return false;
        in.read(static_cast<char*>(data), static_cast<std::streamsize>(size));
        if (static_cast<size_t>(in.gcount()) != size) ok = false;
        return ok;
    }
    bool U8(uint8_t& v) { return Bytes(&v, 1); }
    bool U16(uint16_t& v) {
        unsigned char b[2];
        if (!Bytes(b, 2)) return false;
        v = static_cast<uint16_t>(b[0] | (b[1] << 8));
        return true;
    }
    bool U32(uint32_t& v) {
        unsigned char b[4];
        if (!Bytes(b, 4)) return false;
        v = static_cast<uint32_t>(b[0]) | static_cast<uint32_t>(b[1]) << 8 |
            static_cast<uint32_t>(b[2]) << 16 | static_cast<uint32_t>(b[3]) << 24;
        return true;
    }
    bool I32(int32_t& v) {
        uint32_t u;
        if (!U32(u)) return false;
        v = static_cast<int32_t>(u);
        return true;
    }
    // Four bytes into a cell, as they lie in the stream (little-endian host).
    bool Cell(void* cell) {
        uint32_t u;
        if (!U32(u)) return false;
        std::memcpy(cell, &u, 4);
        return true;
    }
    bool Tag(const char* expected, size_t size) {
        char got[4];
        return Bytes(got, size) && std::memcmp(got, expected, size) == 0;
    }
    bool Good() const { return ok; }

private:
    std::istream& in;
    bool ok = true;
};

}  // namespace Orogen
