// A descriptor its holder owns under an fdsan tag. The wrapper that creates it tags it with
// the holder's owner value, and System::Close must be given the same value; that value is
// the address of this object, so it is derived here alone and the object never moves.
#pragma once

#include "tavrel/SystemCall.h"

namespace NSCam::NSTavrel {

class TaggedFd {
public:
    // Stands for no descriptor.
    static constexpr int kNone = -1;

    TaggedFd() = default;

    // Creates the descriptor with `create(owner)`, a wrapper call that makes and tags it;
    // a failure (a negative result) is kept as it is, for the holder to judge.
    template <typename Create>
    explicit TaggedFd(Create create) {
        this->create(create);
    }

    TaggedFd(const TaggedFd&) = delete;
    TaggedFd& operator=(const TaggedFd&) = delete;

    template <typename Create>
    int create(Create create) {
        mFd = create(owner());
        return mFd;
    }

    // The owner value of the descriptor.
    unsigned long owner() const { return reinterpret_cast<unsigned long>(this); }

    int get() const { return mFd; }
    bool isOpen() const { return mFd != kNone; }

    // Closes through System::Close, whose own log reports a failure, and holds nothing
    // afterwards. Nothing closes the descriptor implicitly: the holder's destructor does,
    // at the step its order of teardown gives.
    void close() {
        System::Close(mFd, owner());
        mFd = kNone;
    }

private:
    int mFd = kNone;
};

}  // namespace NSCam::NSTavrel
