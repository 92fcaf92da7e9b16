// PieceStore: the memory that images share, in pieces.
#pragma once

#include <QtGlobal>

#include <cstddef>
#include <iterator>
#include <map>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

namespace sharedimages {

/// Memory in pieces of one size. Pieces are given back from any thread.
class PieceStore {
public:
    /// imageBytes: of the images that the pieces are for.
    explicit PieceStore(std::size_t imageBytes);
    ~PieceStore();
    PieceStore(const PieceStore&) = delete;
    PieceStore& operator=(const PieceStore&) = delete;

    std::size_t pieceBytes() const { return pieceBytes_; }

    /// Whether images of that size are as well in this store as in a new one.
    bool suits(std::size_t imageBytes) const;

    /// The free piece that follows a given one (null: the first), so that neighbours in an image are neighbours in
    /// memory, and few mappings show it. Its content is anything. Null when there is no memory.
    uchar* take(uchar* before);

    /// The first piece of an image of which every piece may be new: where all of them fit one behind the other, so
    /// that no mapping is needed. That may take memory while there are scattered pieces; they come together in their
    /// turn.
    uchar* takeFirst(std::size_t imagePieces);
    void giveBack(uchar* memory);

    /// Whether second lies directly behind first, in memory that can be mapped in one go.
    bool follows(const uchar* first, const uchar* second) const;

private:
    struct Chunk {
        std::vector<bool> used; // a piece each
        std::size_t usedCount = 0;
    };
    using Chunks = std::map<uchar*, Chunk>;

    Chunks::iterator addChunk();
    void removeUnused(Chunks::iterator chunk);
    uchar* takeAnywhere();
    uchar* takeFrom(Chunks::iterator chunk, std::size_t first);
    std::size_t mostScattered() const { return 2 * chunkPieces_; } // free pieces that keep their memory
    Chunks::iterator chunkOf(uchar* memory) { return std::prev(chunks_.upper_bound(memory)); }

    const std::size_t pieceBytes_;
    const std::size_t chunkPieces_;
    mutable std::mutex mutex_;
    Chunks chunks_; // by address
    std::size_t unusedChunks_ = 0;
    std::size_t freePieces_ = 0; // of chunks that are in use
};

/// One piece of memory in use.
struct Piece {
    explicit Piece(std::shared_ptr<PieceStore> itsStore) : store(std::move(itsStore)) { }
    ~Piece()
    {
        if (memory)
            store->giveBack(memory);
    }
    Piece(const Piece&) = delete;
    Piece& operator=(const Piece&) = delete;

    const std::shared_ptr<PieceStore> store;
    uchar* memory = nullptr;
};

}
