// Obj, the tagged value of the class face, and the exception its checked
// accessors throw.
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <utility>

#include "VideoConsoleCore.h"

namespace VideoConsoleCore {

namespace {

std::string Format(const char* format, va_list arguments) {
    if (format == nullptr) return std::string();
    va_list copy;
    va_copy(copy, arguments);
    const int length = std::vsnprintf(nullptr, 0, format, copy);
    va_end(copy);
    if (length <= 0) return std::string();
    std::string text(static_cast<size_t>(length), '\0');
    std::vsnprintf(text.data(), text.size() + 1, format, arguments);
    return text;
}

char* Duplicate(const char* text) {
    if (text == nullptr) return nullptr;
    const size_t length = std::strlen(text);
    auto* copy = static_cast<char*>(std::malloc(length + 1));
    if (copy != nullptr) std::memcpy(copy, text, length + 1);
    return copy;
}

// A null text compares as an empty one.
int CompareTexts(const char* a, const char* b) {
    return std::strcmp(a != nullptr ? a : "", b != nullptr ? b : "");
}

}  // namespace

NumBaseException::NumBaseException(std::string message) : message_(std::move(message)) {}

const char* NumBaseException::what() const noexcept { return message_.c_str(); }

void NUM_ENSURE(bool condition, const char* format, ...) {
    if (condition) return;
    va_list arguments;
    va_start(arguments, format);
    std::string message = Format(format, arguments);
    va_end(arguments);
    throw NumBaseException(std::move(message));
}

void NUM_EXCEPT(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    std::string message = Format(format, arguments);
    va_end(arguments);
    throw NumBaseException(std::move(message));
}

const Obj Obj::NIL;

Obj::Obj() = default;
Obj::Obj(int value) : type_(kInt32), size_(4) { value_.i32 = value; }
Obj::Obj(unsigned int value) : type_(kUInt32), size_(4) { value_.u32 = value; }
Obj::Obj(int64_t value) : type_(kInt64), size_(8) { value_.i64 = value; }
Obj::Obj(uint64_t value) : type_(kUInt64), size_(8) { value_.u64 = value; }
Obj::Obj(float value) : type_(kFloat), size_(4) { value_.f = value; }
Obj::Obj(double value) : type_(kDouble), size_(8) { value_.d = value; }
Obj::Obj(char* text) : Obj(static_cast<const char*>(text)) {}
Obj::Obj(const char* text) : type_(kString), size_(8) { value_.text = Duplicate(text); }
Obj::Obj(signed char* text) : Obj(reinterpret_cast<const char*>(text)) {}
Obj::Obj(void* pointer) : type_(kPointer), size_(8) { value_.pointer = pointer; }
Obj::Obj(bool value) : type_(kBool), size_(1) { value_.b = value; }

Obj::Obj(const Obj& other) { *this = other; }

Obj& Obj::operator=(const Obj& other) {
    _Tidy();
    type_ = other.type_;
    size_ = other.size_;
    value_ = other.value_;
    if (type_ == kString) value_.text = Duplicate(other.value_.text);
    return *this;
}

Obj::~Obj() { _Tidy(); }

void Obj::_Tidy() {
    if (type_ != kString) return;
    std::free(value_.text);
    value_.text = nullptr;
    type_ = kNil;
}

namespace {
void Require(bool matches) { NUM_ENSURE(matches, "Obj type not match"); }
}  // namespace

Obj::operator int() const { return Require(type_ == kInt32), value_.i32; }
Obj::operator unsigned int() const { return Require(type_ == kUInt32), value_.u32; }
Obj::operator int64_t() const { return Require(type_ == kInt64), value_.i64; }
Obj::operator uint64_t() const { return Require(type_ == kUInt64), value_.u64; }
Obj::operator float() const { return Require(type_ == kFloat), value_.f; }
Obj::operator double() const { return Require(type_ == kDouble), value_.d; }
Obj::operator bool() const { return Require(type_ == kBool), value_.b; }
const char* Obj::GetStr() const { return Require(type_ == kString), value_.text; }
void* Obj::GetPtr() const { return Require(type_ == kPointer), value_.pointer; }

bool Obj::operator==(const Obj& other) const {
    if (type_ != other.type_) return false;
    if (type_ == kString) return CompareTexts(value_.text, other.value_.text) == 0;
    return std::memcmp(&value_, &other.value_, size_ < 8 ? size_ : 8) == 0;
}

bool Obj::operator!=(const Obj& other) const { return !(*this == other); }

bool Obj::operator<(const Obj& other) const {
    if (type_ != other.type_) return type_ < other.type_;
    if (type_ == kString) return CompareTexts(value_.text, other.value_.text) < 0;
    return std::memcmp(&value_, &other.value_, size_ < 8 ? size_ : 8) < 0;
}

std::string Obj::ToStr() const {
    std::ostringstream out;
    switch (type_) {
        case kNil: out << "(nil)"; break;
        case kInt32: out << value_.i32; break;
        case kUInt32: out << value_.u32; break;
        case kInt64: out << value_.i64; break;
        case kUInt64: out << value_.u64; break;
        case kFloat: out << value_.f; break;
        case kDouble: out << value_.d; break;
        case kString: out << (value_.text != nullptr ? value_.text : ""); break;
        case kPointer:
            out << static_cast<uint32_t>(reinterpret_cast<uintptr_t>(value_.pointer));
            break;
        case kBool: out << (value_.b ? "true" : "false"); break;
    }
    return out.str();
}

}  // namespace VideoConsoleCore
