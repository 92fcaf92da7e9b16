// Where the pieces lie, and when the system gets memory back.
#include "piecestore.h"

#include "platform/memory.h"

#include <QScopeGuard>

#include <algorithm>
#include <bit>
#include <iterator>

namespace sharedimages {

namespace {

constexpr std::size_t smallestPiece = std::size_t(64) << 10; // bytes; a multiple of every system's pages
constexpr std::size_t mostPieces = 256; // of one image; a process may only have so many mappings, 65530 on Linux
constexpr std::size_t smallestChunk = std::size_t(1) << 20; // bytes

/// Both are powers of two.
std::size_t pieceSizeFor(std::size_t imageBytes)
{
    return std::max(smallestPiece, std::bit_ceil((imageBytes + mostPieces - 1) / mostPieces));
}

}

PieceStore::PieceStore(std::size_t imageBytes)
    : pieceBytes_(pieceSizeFor(imageBytes)),
      chunkPieces_((std::max(imageBytes, smallestChunk) + pieceBytes_ - 1) / pieceBytes_)
{
}

PieceStore::~PieceStore()
{
    for (const auto& [memory, chunk] : chunks_)
        platform::freeMemory(memory, chunkPieces_ * pieceBytes_);
}

bool PieceStore::suits(std::size_t imageBytes) const
{
    constexpr std::size_t mostChunks = 4; // of an image
    return pieceSizeFor(imageBytes) == pieceBytes_ && imageBytes <= mostChunks * chunkPieces_ * pieceBytes_;
}

bool PieceStore::follows(const uchar* first, const uchar* second) const
{
    const std::lock_guard lock(mutex_);
    return second == first + pieceBytes_ && !chunks_.contains(const_cast<uchar*>(second));
}

uchar* PieceStore::take(uchar* before)
{
    const std::lock_guard lock(mutex_);
    if (before) {
        const auto chunk = chunkOf(before);
        if (uchar* const next = takeFrom(chunk, std::size_t(before - chunk->first) / pieceBytes_ + 1))
            return next;
    }
    return takeAnywhere();
}

uchar* PieceStore::takeFirst(std::size_t imagePieces)
{
    const std::lock_guard lock(mutex_);
    if (imagePieces != chunkPieces_)
        return takeAnywhere();
    auto unused
        = std::find_if(chunks_.begin(), chunks_.end(), [](const auto& chunk) { return chunk.second.usedCount == 0; });
    if (unused == chunks_.end() && freePieces_ < mostScattered()) {
        unused = addChunk();
        // All of it will be written to.
        if (unused != chunks_.end() && !platform::prepareMemory(unused->first, chunkPieces_ * pieceBytes_)) {
            removeUnused(unused);
            return nullptr;
        }
    }
    return unused != chunks_.end() ? takeFrom(unused, 0) : takeAnywhere();
}

uchar* PieceStore::takeAnywhere()
{
    for (auto chunk = chunks_.begin(); chunk != chunks_.end(); ++chunk) {
        if (uchar* const found = takeFrom(chunk, 0))
            return found;
    }
    const auto added = addChunk();
    return added != chunks_.end() ? takeFrom(added, 0) : nullptr;
}

/// The first free piece of a chunk, from one on; null when there is none.
uchar* PieceStore::takeFrom(Chunks::iterator chunk, std::size_t first)
{
    auto& [memory, state] = *chunk;
    if (state.usedCount == chunkPieces_)
        return nullptr;
    const auto found = std::find(state.used.begin() + std::ptrdiff_t(first), state.used.end(), false);
    if (found == state.used.end())
        return nullptr;
    *found = true;
    if (state.usedCount++ == 0) {
        --unusedChunks_;
        freePieces_ += chunkPieces_;
    }
    --freePieces_;
    return memory + std::size_t(found - state.used.begin()) * pieceBytes_;
}

/// The end of the chunks when there is no memory for another one.
PieceStore::Chunks::iterator PieceStore::addChunk()
{
    const std::size_t bytes = chunkPieces_ * pieceBytes_;
    Chunk unused{std::vector<bool>(chunkPieces_, false), 0};
    uchar* const memory = platform::takeMemory(bytes);
    if (!memory)
        return chunks_.end();
    auto release = qScopeGuard([memory, bytes] { platform::freeMemory(memory, bytes); });
    const auto added = chunks_.emplace(memory, std::move(unused)).first;
    release.dismiss();
    ++unusedChunks_;
    return added;
}

/// One chunk without a piece in use is kept for what comes, and one more for every so many; the others are given back
/// to the system. (A queue that is a few images shorter for a moment is about to take them again, and memory that was
/// never touched costs most.) Where pieces that are in use lie scattered, the memory between them is given back, as
/// far as it is more than two images take: what lies between the images of a whole queue, and one that has just
/// ended.
void PieceStore::giveBack(uchar* memory)
{
    const std::lock_guard lock(mutex_);
    const auto chunk = chunkOf(memory);
    chunk->second.used[std::size_t(memory - chunk->first) / pieceBytes_] = false;
    if (--chunk->second.usedCount > 0) {
        if (++freePieces_ > mostScattered())
            platform::emptyMemory(memory, pieceBytes_);
        return;
    }
    freePieces_ -= chunkPieces_ - 1;
    constexpr std::size_t chunksPerSpareOne = 16;
    if (++unusedChunks_ <= 1 + chunks_.size() / chunksPerSpareOne)
        return;
    removeUnused(chunk);
}

void PieceStore::removeUnused(Chunks::iterator chunk)
{
    --unusedChunks_;
    platform::freeMemory(chunk->first, chunkPieces_ * pieceBytes_);
    chunks_.erase(chunk);
}

}
