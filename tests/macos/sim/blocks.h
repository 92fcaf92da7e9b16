// The blocks runtime's side that the simulated system uses.
#pragma once

extern "C" {
void* _Block_copy(const void* block);
void _Block_release(const void* block);
}

namespace macsim {

using ObjectCall = void (*)(const void* object);
/// How objects that a block captured are counted. Called once, before the first block.
void countCapturedObjects(ObjectCall retain, ObjectCall release);

/// A counted reference to a block.
template <typename B>
class BlockRef {
public:
    explicit BlockRef(B block) : block_(copy(block)) { }
    BlockRef(const BlockRef& other) : block_(copy(other.block_)) { }
    BlockRef& operator=(const BlockRef&) = delete;
    ~BlockRef()
    {
        if (block_)
            _Block_release(reinterpret_cast<const void*>(block_));
    }

    B get() const { return block_; }

private:
    static B copy(B block) { return reinterpret_cast<B>(_Block_copy(reinterpret_cast<const void*>(block))); }

    B block_;
};

}
