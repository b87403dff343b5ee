#include <Zel/Exception.h>
#include <Zel/FileDescriptor.h>
#include <Zel/GenericIf.h>

#include <fcntl.h>

#include <cerrno>

namespace Zel {

namespace {
TypeRegistration<FileDescriptor> const registration;
}  // namespace

Ptr<FileDescriptor> fileDescriptorFactory(Name const& name) {
  return allocate<FileDescriptor>(name);
}

FileDescriptor::FileDescriptor(Name const& name) : name_(name), activity_(activityManager()) {}

FileDescriptor::~FileDescriptor() {
  if (registration_) activity_->descriptorDel(registration_, descriptor_);
}

// Setting the same number again registers it anew: the owner may have closed it and opened
// another file under that number.
void FileDescriptor::descriptorIs(int descriptor) {
  if (descriptor < 0 && descriptor_ < 0) return;
  U64 const registration = descriptor >= 0 ? activity_->descriptorIs(descriptor, this) : 0;
  if (registration_) activity_->descriptorDel(registration_, descriptor_);
  descriptor_ = descriptor;
  registration_ = registration;
}

void FileDescriptor::nonBlockingIs(bool nonBlocking) {
  int const flags = fcntl(descriptor_, F_GETFL);
  if (flags < 0) throw ErrnoException("fcntl get flags of " + name_.str(), errno);
  int const wanted = nonBlocking ? flags | O_NONBLOCK : flags & ~O_NONBLOCK;
  if (wanted != flags && fcntl(descriptor_, F_SETFL, wanted) < 0) {
    throw ErrnoException("fcntl set flags of " + name_.str(), errno);
  }
}

void FileDescriptor::handleReadable() {
  attributeInc(readableCount_, U64(1), &NotifieeConst::onReadableCount);
}

}  // namespace Zel
