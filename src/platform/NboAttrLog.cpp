#include <Zel/Exception.h>
#include <Zel/NboAttrLog.h>

namespace Zel::NboAttrLog {

Out& Out::operator<<(std::string_view value) {
  *this << static_cast<U32>(value.size());
  bytes_.insert(bytes_.end(), value.begin(), value.end());
  return *this;
}

void In::endedEarly() { throw RangeException("Attribute log ended early"); }

void In::refused(std::string_view typeName) {
  throw RangeException("Error deserializing " + std::string(typeName));
}

In& In::operator>>(bool& value) {
  U8 byte;
  *this >> byte;
  if (byte > 1) refused("bool");
  value = byte == 1;
  return *this;
}

In& In::operator>>(float& value) {
  U32 bits;
  *this >> bits;
  value = std::bit_cast<float>(bits);
  return *this;
}

In& In::operator>>(double& value) {
  U64 bits;
  *this >> bits;
  value = std::bit_cast<double>(bits);
  return *this;
}

std::string In::takeText() {
  U32 size;
  *this >> size;
  if (remaining() < size) endedEarly();
  std::string text(reinterpret_cast<char const*>(at_), size);
  at_ += size;
  return text;
}

In& In::operator>>(String& value) {
  value = String(takeText());
  return *this;
}

In& In::operator>>(Name& value) {
  value = Name(takeText());
  return *this;
}

}  // namespace Zel::NboAttrLog
