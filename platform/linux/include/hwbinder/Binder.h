#pragma once

#include <hwbinder/IBinder.h>
#include <utils/StrongPointer.h>

namespace android::hardware {

// What every proxy has: the binder that it stands for.
class BpHwRefBase : public virtual RefBase {
  public:
    IBinder* remote() const { return mRemote.get(); }

  protected:
    explicit BpHwRefBase(const sp<IBinder>& remote) : mRemote(remote) {}

  private:
    const sp<IBinder> mRemote;
};

}  // namespace android::hardware
