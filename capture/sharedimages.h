// SharedImages: successive images of one window, which share the memory of what did not change.
#pragma once

#include "nomemorywarning.h"
#include "rowset.h"

#include <QImage>
#include <QSize>

#include <memory>
#include <vector>

namespace sharedimages {
class PieceStore;
struct Piece;
}

/**
 * Makes images from pixels. Each is a plain QImage, but its memory is made of pieces (64 KiB or more), and those that
 * are equal in the image before are the same memory: an image of which a corner changed takes a corner. Where they do
 * not lie one behind the other, the image has addresses of its own, which show them so. What no image uses any more
 * is used again for the next one.
 *
 * update() begins an image; put() says what is in it; finish() gives it. What put() leaves out stays as it was in the
 * image before. Used from one thread at a time; the images themselves may go anywhere, and outlive this object.
 */
class SharedImages {
public:
    /// What became of the pixels.
    struct Image {
        QImage image; ///< null when no memory could be had; the next update() then begins from the image before
        RowSet changedRows; ///< of the image; they may differ from the image before, all others do not
        qint64 ownBytes = 0; ///< memory that the image before does not hold, too
    };

    SharedImages() : SharedImages(NoMemoryWarning()) { }
    /// noMemory tells of the first image that is missing for want of memory.
    explicit SharedImages(const NoMemoryWarning& noMemory);
    ~SharedImages();
    SharedImages(const SharedImages&) = delete;
    SharedImages& operator=(const SharedImages&) = delete;

    /// Begins the next image. The format has 32 bits a pixel. After an image of another size or format everything has
    /// to be put.
    void update(const QSize& size, QImage::Format format);

    /// Pixels of whole rows, without padding between them; setBits are set in every one. They are compared with what
    /// is there, and copied when they differ.
    void put(int firstRow, int rowCount, const quint32* pixels, quint32 setBits = 0);

    /// In the place of pixels that could not be made, for want of memory: there will be no image.
    void abandon() { outOfMemory_ = true; }

    /// The image. The very one that came last (QImage::cacheKey()) when nothing has changed.
    Image finish();

    /// The next image shares nothing with the last one.
    void forget();

    /// The image that finish() gave last; null when there was none.
    const QImage& last() const { return last_; }

private:
    using Piece = std::shared_ptr<sharedimages::Piece>;

    void putIntoPiece(
        std::size_t index, std::size_t first, std::size_t count, const quint32* pixels, quint32 setBits);
    bool replacePiece(std::size_t index, bool willBeWhole);
    QImage mapped() const;
    QImage copied() const;

    std::shared_ptr<sharedimages::PieceStore> store_; ///< of the pieces' size
    QSize size_;
    QImage::Format format_ = QImage::Format_Invalid;
    QImage last_;
    std::vector<Piece> lastPieces_; ///< of last_; null ones have never been put
    bool lastIsNew_ = false; ///< there was an image before it, which has none of them
    std::vector<Piece> pieces_; ///< of the image that has begun
    std::vector<bool> isNew_; ///< which of them last_ does not have
    RowSet changedRows_; ///< so far
    bool outOfMemory_ = false;
    NoMemoryWarning noMemory_;
};
