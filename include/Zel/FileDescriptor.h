// Zel::FileDescriptor: a descriptor watched for readability on the activity of the thread that
// made it. Each time the loop finds it readable the readableCount goes up by one and the
// notifiees' onReadableCount() runs; readability is level-triggered, so a handler that leaves
// data unread is called again on the next turn (under virtual time, before time moves on). The
// owner opens and closes the descriptor; setting it to -1 or destroying the entity stops the
// notifications.
#pragma once

#include <Zel/Activity.h>
#include <Zel/Entity.h>
#include <Zel/Name.h>
#include <Zel/Notifiee.h>
#include <Zel/Ptr.h>
#include <Zel/Types.h>

namespace Zel {

class FileDescriptor;
Ptr<FileDescriptor> fileDescriptorFactory(Name const& name);

class FileDescriptor : public Notifier {
public:
  class NotifieeConst : public NotifieeConstOf<FileDescriptor> {
  public:
    virtual void onReadableCount() {}
  };
  using Notifiee = NotifieeOf<FileDescriptor>;

  ~FileDescriptor() override;

  Name const& name() const noexcept { return name_; }

  int descriptor() const noexcept { return descriptor_; }
  // Watches `descriptor` (-1: none). Throws ErrnoException, and keeps the previous descriptor,
  // when the kernel refuses the new one.
  void descriptorIs(int descriptor);

  // Sets or clears O_NONBLOCK on the descriptor; throws ErrnoException on failure.
  void nonBlockingIs(bool nonBlocking);

  U64 readableCount() const noexcept { return readableCount_; }

  static auto zelAttributes() {
    return entityAttributes<FileDescriptor>(
        "Zel::FileDescriptor", &fileDescriptorFactory,
        ctorParams(ctorParam("name", &FileDescriptor::name)),
        scalar("descriptor", &FileDescriptor::descriptor, &FileDescriptor::descriptorIs),
        computed("readableCount", &FileDescriptor::readableCount));
  }

protected:
  explicit FileDescriptor(Name const& name);

private:
  friend class ActivityManager;
  void handleReadable();

  Name name_;
  int descriptor_ = -1;
  U64 readableCount_ = 0;
  Ptr<ActivityManager> activity_;
  U64 registration_ = 0;
};

}  // namespace Zel
