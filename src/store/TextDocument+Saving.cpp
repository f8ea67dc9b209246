#include "bytes/Gzip.h"
#include "bytes/MappedSource.h"
#include "bytes/MemorySource.h"
#include "common/BrimError.h"
#include "common/Localization.h"
#include "store/TextDocument.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <limits>
#include <random>
#include <system_error>

namespace brim {

namespace {

/// A fresh random UUID in its upper-case text form.
std::string makeUUID() {
    std::random_device device;
    std::uint8_t bytes[16];
    for (auto& b : bytes) b = static_cast<std::uint8_t>(device() & 0xFF);
    bytes[6] = static_cast<std::uint8_t>((bytes[6] & 0x0F) | 0x40);
    bytes[8] = static_cast<std::uint8_t>((bytes[8] & 0x3F) | 0x80);
    static constexpr char digits[] = "0123456789ABCDEF";
    std::string text;
    for (int i = 0; i < 16; ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) text += '-';
        text += digits[bytes[i] >> 4];
        text += digits[bytes[i] & 0x0F];
    }
    return text;
}

bool holdsEveryCharacter(const TextEncoding& encoding) {
    static const char* const ids[] = {"utf8", "utf16le", "utf16be", "utf32le", "utf32be", "gb18030"};
    return std::find(std::begin(ids), std::end(ids), encoding.id) != std::end(ids);
}

bool isRare(LineEnding ending) { return ending != LineEnding::lf && ending != LineEnding::crlf; }

bool needsWorkingCopy(const TextEncoding& encoding, LineEnding ending) {
    return !encoding.asciiCompatible || encoding.stateful != nullptr || Transcoder::hasShiftState(encoding) || isRare(ending);
}

bool endsWithIgnoringCase(const std::string& text, std::string_view suffix) {
    if (text.size() < suffix.size()) return false;
    for (std::size_t i = 0; i < suffix.size(); ++i) {
        const char c = text[text.size() - suffix.size() + i];
        if (std::tolower(static_cast<unsigned char>(c)) != suffix[i]) return false;
    }
    return true;
}

/// A file being written, removed on destruction unless it was kept. The descriptor holds an exclusive
/// lock for the file's whole life, so a cleaner can tell a live save's file from one a killed process
/// left: only the latter can be locked.
class NewFile {
public:
    /// An unnamed file in `folder` where the system can make one, so a save that is killed leaves
    /// nothing behind; it gets `path` only when `name` is called. Elsewhere it is `path` at once.
    NewFile(const std::filesystem::path& folder, std::filesystem::path path, const std::string& failure)
        : path_(std::move(path)) {
        fd_ = ::open(folder.c_str(), O_TMPFILE | O_WRONLY | O_CLOEXEC, 0666);
        if (fd_ < 0 && errno != EOPNOTSUPP && errno != EISDIR && errno != EINVAL) throw posixError(failure, errno);
        if (fd_ < 0) {
            fd_ = ::open(path_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
            if (fd_ < 0) throw posixError(failure, errno);
            named_ = true;
        }
        ::flock(fd_, LOCK_EX | LOCK_NB);
    }
    ~NewFile() {
        if (!kept_ && named_) {
            std::error_code ignored;
            std::filesystem::remove(path_, ignored);
        }
        if (fd_ >= 0) ::close(fd_);
    }
    NewFile(const NewFile&) = delete;
    NewFile& operator=(const NewFile&) = delete;

    void write(std::span<const std::uint8_t> bytes) {
        std::size_t done = 0;
        while (done < bytes.size()) {
            const ssize_t n = ::write(fd_, bytes.data() + done, bytes.size() - done);
            if (n < 0) {
                if (errno == EINTR) continue;
                throw posixError(L("Could not write %@", path_.string()), errno);
            }
            done += static_cast<std::size_t>(n);
        }
        written_ += static_cast<std::int64_t>(bytes.size());
    }

    /// Appends `length` bytes of the descriptor `from`, starting at `offset`, copied inside the kernel
    /// where the system can (no pass through this process's memory), else through a buffer. Returns
    /// how many came: fewer only when `from` ends early.
    std::int64_t copyFrom(int from, std::int64_t offset, std::int64_t length) {
        std::int64_t done = 0;
        bool inKernel = true;
        std::vector<std::uint8_t> buffer;
        while (done < length) {
            const auto want = static_cast<std::size_t>(std::min<std::int64_t>(length - done, 1 << 30));
            if (inKernel) {
                loff_t at = offset + done;
                const ssize_t n = ::copy_file_range(from, &at, fd_, nullptr, want, 0);
                if (n > 0) {
                    done += n;
                    written_ += n;
                    continue;
                }
                if (n == 0) break;
                if (errno == EINTR) continue;
                if (errno != EXDEV && errno != EINVAL && errno != ENOSYS && errno != EOPNOTSUPP && errno != EBADF) {
                    throw posixError(L("Could not write %@", path_.string()), errno);
                }
                inKernel = false;   // another kind of file or volume: the same bytes through a buffer
                buffer.resize(1 << 20);
            }
            const ssize_t n = ::pread(from, buffer.data(), std::min(want, buffer.size()), offset + done);
            if (n < 0 && errno == EINTR) continue;
            if (n < 0) throw posixError(L("Could not write %@", path_.string()), errno);
            if (n == 0) break;
            write({buffer.data(), static_cast<std::size_t>(n)});
            done += n;
        }
        return done;
    }

    /// Onto the disk. The descriptor (and its lock) stays open until the file is kept or removed.
    void synchronise() {
        if (::fsync(fd_) != 0) throw posixError(L("Could not write %@", path_.string()), errno);
    }

    /// Gives an unnamed file its name.
    void name(const std::string& failure) {
        if (named_) return;
        const std::string self = "/proc/self/fd/" + std::to_string(fd_);
        if (::linkat(AT_FDCWD, self.c_str(), AT_FDCWD, path_.c_str(), AT_SYMLINK_FOLLOW) != 0) {
            throw posixError(failure, errno);
        }
        named_ = true;
    }

    void keep() { kept_ = true; }
    [[nodiscard]] int fd() const { return fd_; }
    [[nodiscard]] const std::filesystem::path& path() const { return path_; }
    [[nodiscard]] std::int64_t written() const { return written_; }

private:
    std::filesystem::path path_;
    int fd_ = -1;
    bool named_ = false;
    bool kept_ = false;
    std::int64_t written_ = 0;
};

bool isTemporaryName(std::string_view name) {
    return name.size() == 6 + 36 + 4 && name.starts_with(".brim-") && name.ends_with(".tmp");
}

/// Thrown inside a save to end it when the user cancels; never leaves this file.
struct SaveCancelled {};

/// Walks the pieces under `range` of the table in order, in blocks of at most `blockSize`: `body` gets
/// the piece, the block's place in the piece's store, and the place there of the piece's whole part
/// of the range.
void forEachPieceStretch(const PieceTable& table, ByteRange range, std::int64_t blockSize,
                         const std::function<void(const PieceTable::Piece&, ByteRange, ByteRange)>& body) {
    std::int64_t position = 0;
    for (const auto& piece : table.pieces()) {
        const ByteRange inDocument{position, position + piece.length};
        position += piece.length;
        const ByteRange wanted{std::max(range.lower, inDocument.lower), std::min(range.upper, inDocument.upper)};
        if (wanted.empty()) continue;
        const std::int64_t base = piece.offset - inDocument.lower;
        const ByteRange whole{base + wanted.lower, base + wanted.upper};
        for (std::int64_t at = wanted.lower; at < wanted.upper; at += blockSize) {
            body(piece, {base + at, base + std::min(wanted.upper, at + blockSize)}, whole);
        }
        if (position >= range.upper) break;
    }
}

/// Calls `body` with the bytes of `range` of the table in order, in blocks of at most `blockSize`. A
/// mapped file is read into `scratch` rather than touched through its map, so memory stays the
/// block's size whatever the file's.
void forEachPieceBlock(const PieceTable& table, ByteRange range, std::int64_t blockSize,
                       std::vector<std::uint8_t>& scratch,
                       const std::function<void(std::span<const std::uint8_t>)>& body) {
    forEachPieceStretch(table, range, blockSize, [&](const PieceTable::Piece& piece, ByteRange inSource, ByteRange) {
        const ByteSource& source = piece.fromOriginal ? table.original() : static_cast<const ByteSource&>(table.added());
        if (source.prefersBufferedReads()) {
            scratch.resize(static_cast<std::size_t>(inSource.length()));
            source.read(inSource, scratch.data());
            body(scratch);
        } else {
            source.withBytes(inSource, body);
        }
    });
}

/// Copies the bytes of `from` into the existing file `into`, then cuts it to their length: the same
/// file keeps its identity, links, owner and attributes.
void copyContents(const std::filesystem::path& from, const std::filesystem::path& into) {
    const int in = ::open(from.c_str(), O_RDONLY | O_CLOEXEC);
    if (in < 0) throw posixError(L("Could not write %@", into.string()), errno);
    const int out = ::open(into.c_str(), O_WRONLY | O_CLOEXEC);
    if (out < 0) {
        const int error = errno;
        ::close(in);
        throw posixError(L("Could not write %@", into.string()), error);
    }
    std::vector<std::uint8_t> buffer(1 << 20);
    std::int64_t total = 0;
    int error = 0;
    while (true) {
        const ssize_t n = ::read(in, buffer.data(), buffer.size());
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            error = errno;
            break;
        }
        if (n == 0) break;
        for (ssize_t done = 0; done < n;) {
            const ssize_t w = ::pwrite(out, buffer.data() + done, static_cast<std::size_t>(n - done), total + done);
            if (w < 0 && errno == EINTR) continue;
            if (w < 0) {
                error = errno;
                break;
            }
            done += w;
        }
        if (error != 0) break;
        total += n;
    }
    if (error == 0 && ::ftruncate(out, total) != 0) error = errno;
    if (error == 0 && ::fsync(out) != 0) error = errno;
    ::close(in);
    ::close(out);
    if (error != 0) throw posixError(L("Could not write %@", into.string()), error);
}

void synchroniseFolder(const std::filesystem::path& folder) {
    const int fd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return;
    ::fsync(fd);
    ::close(fd);
}

} // namespace

TextDocument::SaveOutcome TextDocument::writeOut(const std::filesystem::path& requested, const WriteOptions& options,
                                                 const Progress& progress, const IsCancelled& isCancelled) const {
    // 1. Where to.
    if (requested.empty()) throw BrimError(L("no destination"));
    std::error_code error;
    std::filesystem::path dest = std::filesystem::absolute(requested, error).lexically_normal();
    if (std::filesystem::is_symlink(dest, error)) {
        // Saving through a link writes the file it points at; the link stays a link.
        dest = std::filesystem::weakly_canonical(dest, error);
    }
    const auto folder = dest.parent_path();

    // 2. What has to change on the way out.
    const LineEnding tableEnding = normalisedToLF ? LineEnding::lf : lineEndingReport.dominant;
    const LineEnding written = spelledIn(options.lineEnding, options.encoding);
    const bool endingChanges = written != tableEnding;
    const bool bytesUnchanged = options.encoding == encoding && !endingChanges;
    const std::optional<LineEnding> rewriteTo = endingChanges ? std::optional<LineEnding>(written) : std::nullopt;
    const bool fileReplacesEBCDICFeeds = ebcdicASCIINewlines && options.encoding.isEBCDIC();

    // 3. The temporary file, beside the destination so the swap stays on one volume.
    removeAbandonedTemporaryFiles(folder);
    const std::string cannotCreate = L("cannot create temporary file next to %@", dest.string());
    NewFile temp(folder, folder / (".brim-" + makeUUID() + ".tmp"), cannotCreate);

    // 4. Gzip, when the document was unpacked and goes back to a ".gz" name.
    const std::string destName = dest.filename().string();
    std::unique_ptr<Gzip::Encoder> gzip;
    if (isGzipped && endsWithIgnoringCase(destName, ".gz") && !endsWithIgnoringCase(destName, ".tar.gz")) {
        gzip = std::make_unique<Gzip::Encoder>(Gzip::uncompressedName(destName), gzipLevel);
        temp.write(gzip->header());
    }

    // 5. A new working copy when the text can't be held as the file's bytes.
    std::unique_ptr<NewFile> copy;
    if (needsWorkingCopy(options.encoding, written)) {
        const auto copies = Transcoder::workingCopiesDirectory();
        std::filesystem::create_directories(copies, error);
        copy = std::make_unique<NewFile>(copies, copies / (makeUUID() + ".utf8"), L("cannot create working copy"));
    }

    LineIndex::Builder builder(table_->originalIndex().stride());
    std::unique_ptr<Transcoder::StreamingConverter> toCopy;
    if (copy && encoding.id != "utf8") {
        toCopy = std::make_unique<Transcoder::StreamingConverter>(encoding, TextEncoding::utf8(), std::nullopt);
    }
    std::optional<Transcoder::Checkpoints> newCheckpoints;
    if (copy) newCheckpoints.emplace();

    const auto toFile = [&](std::span<const std::uint8_t> bytes) {
        if (bytes.empty()) return;
        std::vector<std::uint8_t> replaced;
        if (fileReplacesEBCDICFeeds) {
            replaced.assign(bytes.begin(), bytes.end());
            std::replace(replaced.begin(), replaced.end(), std::uint8_t{0x25}, std::uint8_t{0x0A});
            bytes = replaced;
        }
        if (!copy) builder.scan(bytes);
        if (gzip) {
            temp.write(gzip->process(bytes));
        } else {
            temp.write(bytes);
        }
    };
    const auto toCopyFile = [&](std::span<const std::uint8_t> bytes) {
        if (!copy || bytes.empty()) return;
        copy->write(bytes);
        builder.scan(bytes);
    };

    // 6. The byte order mark. A table that starts with its own (a UTF-8 file read as it is) leaves
    // it out here, so the mark is written once, or not at all when no longer wanted.
    const auto tableBOM = encoding.bom();
    const std::int64_t tableBOMLength =
        hasBOM && !tableBOM.empty() && textStart() > 0 ? static_cast<std::int64_t>(tableBOM.size()) : 0;
    const auto fileBOM = options.encoding.bom();
    if (options.writeBOM) toFile(fileBOM);

    std::unique_ptr<Transcoder::StreamingConverter> converter;
    const auto freshConverter = [&] {
        converter = bytesUnchanged
                        ? nullptr
                        : std::make_unique<Transcoder::StreamingConverter>(encoding, options.encoding, rewriteTo);
    };
    freshConverter();
    const auto flushConverter = [&] {
        if (converter) toFile(converter->flush());
        if (toCopy) {
            toCopyFile(toCopy->flush());
            toCopy = std::make_unique<Transcoder::StreamingConverter>(encoding, TextEncoding::utf8(), std::nullopt);
        }
        freshConverter();
        if (newCheckpoints) newCheckpoints->add(copy->written(), temp.written());
    };

    const std::int64_t total = std::max<std::int64_t>(table_->byteCount(), 1);
    std::int64_t done = 0;
    const auto emit = [&](std::span<const std::uint8_t> bytes) {
        if (toCopy) {
            toCopyFile(toCopy->convert(bytes));
        } else {
            toCopyFile(bytes);
        }
        if (converter) {
            toFile(converter->convert(bytes));
        } else {
            toFile(bytes);
        }
        done += static_cast<std::int64_t>(bytes.size());
        if (progress) progress(static_cast<double>(done) / static_cast<double>(total));
        if (isCancelled && isCancelled()) throw SaveCancelled{};
    };

    // 8. The text: stretches nothing changed are copied from the old file by checkpoint; the rest is
    // converted, in blocks of 8 MiB.
    std::optional<int> oldFile;
    const bool splicing = [&] {
        if (!workingCopy_ || !checkpoints || !checkpoints->isUsable || !checkpointedFile || !url) return false;
        if (!(options.encoding == fileEncoding) || endingChanges || options.writeBOM != hasBOM || gzip) return false;
        if (fileReplacesEBCDICFeeds != ebcdicASCIINewlines) return false;
        struct stat info {};
        if (::stat(url->c_str(), &info) != 0) return false;
        const std::int64_t modified = static_cast<std::int64_t>(info.st_mtim.tv_sec) * 1'000'000'000 + info.st_mtim.tv_nsec;
        if (std::make_pair(static_cast<std::int64_t>(info.st_size), modified) != *checkpointedFile) return false;
        const int fd = ::open(url->c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0) return false;
        oldFile = fd;
        return true;
    }();
    struct CloseOld {
        std::optional<int>& fd;
        ~CloseOld() {
            if (fd) ::close(*fd);
        }
    } closeOld{oldFile};

    // The table piece by piece in blocks of 8 MiB. A mapped file is read into one private block
    // rather than touched through its map, so memory stays the block's size whatever the file's.
    std::vector<std::uint8_t> block;
    const auto forEachBlock = [&](ByteRange range, const std::function<void(std::span<const std::uint8_t>)>& body) {
        forEachPieceBlock(*table_, range, saveBlockSize, block, body);
    };
    const auto streamRange = [&](ByteRange range) { forEachBlock(range, emit); };
    const auto* mappedOriginal = dynamic_cast<const MappedSource*>(&table_->original());
    const auto spliceFile = [&](ByteRange copyRange, ByteRange inOriginal, std::int64_t fileFrom, std::int64_t fileTo) {
        flushConverter();
        // The copy still gets the document's own text; the file gets the old file's bytes. The text is
        // a stretch of the old copy, so it too goes from file to file, its lines taken from the index.
        if (!toCopy && mappedOriginal != nullptr && mappedOriginal->fd() >= 0 &&
            table_->originalIndex().indexedBytes() >= inOriginal.upper) {
            builder.appendIndexed(table_->originalIndex(), table_->original(), inOriginal);
            if (copy->copyFrom(mappedOriginal->fd(), inOriginal.lower, inOriginal.length()) < inOriginal.length()) {
                throw posixError(L("Could not read %@", url->string()), EIO);
            }
        } else {
            forEachBlock(copyRange, [&](std::span<const std::uint8_t> bytes) { toCopyFile(bytes); });
        }
        if (temp.copyFrom(*oldFile, fileFrom, fileTo - fileFrom) < fileTo - fileFrom) {
            throw posixError(L("Could not read %@", url->string()), EIO);
        }
        done += copyRange.length();
        if (progress) progress(static_cast<double>(done) / static_cast<double>(total));
        if (isCancelled && isCancelled()) throw SaveCancelled{};
        if (newCheckpoints) newCheckpoints->add(copy->written(), temp.written());
    };

    // A file written as the table holds it, from a table over a file: the stretches of the original
    // go from file to file inside the kernel, and the index of what is written takes their lines from
    // the original's index, reading only the bytes about each stretch's ends.
    const bool passthrough = !converter && !gzip && !copy && !toCopy && !splicing && !fileReplacesEBCDICFeeds &&
                             mappedOriginal != nullptr && mappedOriginal->fd() >= 0;
    const auto copyPassingThrough = [&] {
        const ByteRange whole{tableBOMLength, table_->byteCount()};
        // An untouched document may not be indexed to its end yet: the rest, in parallel, into a copy.
        std::optional<LineIndex> completed;
        if (!table_->originalIndex().isComplete()) {
            completed.emplace(table_->originalIndex());
            if (auto extension = planIndexExtension(completed->byteCount(), {}, isCancelled)) {
                completed->commit(std::move(*extension));
            }
            if (isCancelled && isCancelled()) throw SaveCancelled{};
        }
        const LineIndex& originalIndex = completed ? *completed : table_->originalIndex();
        forEachPieceStretch(*table_, whole, saveBlockSize, [&](const PieceTable::Piece& piece, ByteRange inSource,
                                                               ByteRange pieceStretch) {
            if (piece.fromOriginal) {
                // The lines of the whole stretch at once, so its ends are read once, not at every block.
                if (inSource.lower == pieceStretch.lower) builder.appendIndexed(originalIndex, table_->original(), pieceStretch);
                const std::int64_t came = temp.copyFrom(mappedOriginal->fd(), inSource.lower, inSource.length());
                if (came < inSource.length()) {
                    // The file was cut short under the document: what the document shows for the
                    // missing part (zeros, as the map reads them) is written as it stands.
                    block.resize(static_cast<std::size_t>(inSource.length() - came));
                    table_->original().read({inSource.lower + came, inSource.upper}, block.data());
                    temp.write(block);
                }
            } else {
                table_->added().withBytes(inSource, [&](std::span<const std::uint8_t> bytes) {
                    builder.scan(bytes);
                    temp.write(bytes);
                });
            }
            done += inSource.length();
            if (progress) progress(static_cast<double>(done) / static_cast<double>(total));
            if (isCancelled && isCancelled()) throw SaveCancelled{};
        });
    };

    try {
        if (passthrough) {
            copyPassingThrough();
        } else if (splicing) {
            // Each piece of the original maps a stretch of the document to the same stretch of the
            // old copy; a checkpoint interval inside one such piece is the old file's bytes unchanged.
            std::int64_t position = 0;
            std::int64_t pending = tableBOMLength;   // start of text not yet written
            for (const auto& piece : table_->pieces()) {
                if (piece.fromOriginal) {
                    const std::int64_t end = piece.offset + piece.length;
                    auto pair = checkpoints->atOrAfter(piece.offset);
                    while (pair && pair->first < end) {
                        const auto next = checkpoints->atOrAfter(pair->first + 1);
                        if (!next || next->first > end) break;
                        const std::int64_t documentStart = position + (pair->first - piece.offset);
                        if (options.writeBOM && pair->second < static_cast<std::int64_t>(fileBOM.size())) {
                            pair = next;   // the mark is written apart; never copy it twice
                            continue;
                        }
                        streamRange({pending, documentStart});
                        spliceFile({documentStart, documentStart + (next->first - pair->first)}, {pair->first, next->first},
                                   pair->second, next->second);
                        pending = documentStart + (next->first - pair->first);
                        pair = next;
                    }
                }
                position += piece.length;
            }
            streamRange({pending, table_->byteCount()});
        } else {
            streamRange({tableBOMLength, table_->byteCount()});
        }
        // 9. What the converters held back, and the end of the gzip member.
        if (converter) toFile(converter->flush());
        if (toCopy) toCopyFile(toCopy->flush());
        if (newCheckpoints) newCheckpoints->add(copy->written(), temp.written());
        if (gzip) temp.write(gzip->finish());
    } catch (const SaveCancelled&) {
        SaveOutcome cancelled;
        cancelled.dest = dest;
        cancelled.cancelled = true;
        return cancelled;
    }

    // 10, 11. Onto the disk, with the old file's permissions (and owner, where allowed).
    struct stat old {};
    const bool destExists = ::stat(dest.c_str(), &old) == 0;
    if (destExists) {
        ::fchmod(temp.fd(), old.st_mode & 07777);
        if (::fchown(temp.fd(), old.st_uid, old.st_gid) != 0) {
            // Not ours to give away: the new file keeps the saver as owner.
        }
    }
    temp.synchronise();
    if (copy) {
        copy->synchronise();
        copy->name(L("cannot create working copy"));
    }

    // 12. The swap.
    temp.name(cannotCreate);
    if (options.inPlace && loadMode_ != LoadMode::mapped && destExists) {
        copyContents(temp.path(), dest);
    } else {
        if (::rename(temp.path().c_str(), dest.c_str()) != 0) {
            throw posixError(L("Could not write %@", dest.string()), errno);
        }
        temp.keep();
        synchroniseFolder(folder);
    }

    // 13. The outcome.
    SaveOutcome outcome;
    outcome.dest = dest;
    outcome.encoding = options.encoding;
    outcome.lineEnding = written;   // an ending the set can't spell went out as LF, and the document says so
    outcome.hasBOM = options.writeBOM;
    outcome.index = builder.finish();
    outcome.isGzipped = gzip != nullptr;
    if (copy) {
        copy->keep();
        outcome.workingCopy = copy->path();
        if (newCheckpoints && newCheckpoints->isUsable && !gzip) outcome.checkpoints = std::move(newCheckpoints);
    }
    // A copy holds the document's text in UTF-8 without a mark; a file holds it as written.
    outcome.sameBytes = copy ? encoding.id == "utf8" && tableBOMLength == 0
                             : bytesUnchanged && options.writeBOM == (tableBOMLength > 0);
    return outcome;
}

std::size_t TextDocument::removeAbandonedTemporaryFiles(const std::filesystem::path& folder) {
    DIR* directory = ::opendir(folder.c_str());
    if (directory == nullptr) return 0;
    std::size_t removed = 0;
    while (const dirent* entry = ::readdir(directory)) {
        if (!isTemporaryName(entry->d_name)) continue;
        const auto path = folder / entry->d_name;
        const int fd = ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK);
        if (fd < 0) continue;
        // A save in progress holds the lock; a file nobody holds was left by a save that died.
        if (::flock(fd, LOCK_EX | LOCK_NB) == 0 && ::unlink(path.c_str()) == 0) ++removed;
        ::close(fd);
    }
    ::closedir(directory);
    return removed;
}

void TextDocument::adoptSaved(SaveOutcome outcome) {
    if (outcome.cancelled) return;
    std::shared_ptr<const ByteSource> source;
    LoadMode mode = LoadMode::memory;
    try {
        if (outcome.workingCopy) {
            source = readWorkingCopy(*outcome.workingCopy);
            if (!source) throw BrimError(L("The copy of %@ Brim made to read it could not be read back.",
                                           outcome.dest.filename().string()));
            mode = source->count() > 0 ? LoadMode::mapped : LoadMode::memory;
        } else if (outcome.isGzipped) {
            const auto packed = MemorySource::bytesOfFile(outcome.dest);
            source = std::make_shared<MemorySource>(Gzip::decompress(packed, std::numeric_limits<std::int64_t>::max()));
        } else {
            std::error_code error;
            const auto size = static_cast<std::int64_t>(std::filesystem::file_size(outcome.dest, error));
            if (error) throw BrimError(error.message());
            if (size >= mmapThreshold_) {
                source = std::make_shared<MappedSource>(outcome.dest);
                mode = LoadMode::mapped;
            } else {
                source = std::make_shared<MemorySource>(MemorySource::bytesOfFile(outcome.dest));
            }
        }
    } catch (const BrimError& failure) {
        if (outcome.workingCopy) {
            std::error_code ignored;
            std::filesystem::remove(*outcome.workingCopy, ignored);
        }
        throw BrimError(L("Could not save the file") + ": " + failure.what());
    }

    LineIndex index = std::move(outcome.index);
    if (index.byteCount() != source->count() || !index.isComplete()) {
        index = LineIndex::build(*source, index.stride()).value_or(LineIndex(source->count()));
    }
    const bool nameChanged = !url || url->filename() != outcome.dest.filename();
    if (!outcome.sameBytes) clearUndoHistory();

    replaceTable(std::move(source), mode, std::move(index));
    url = outcome.dest;
    encoding = outcome.workingCopy ? TextEncoding::utf8() : outcome.encoding;
    fileEncoding = outcome.encoding;
    lineEnding = outcome.lineEnding;
    hasBOM = outcome.hasBOM;
    isGzipped = outcome.isGzipped;
    normalisedToLF = outcome.workingCopy.has_value() && isRare(outcome.lineEnding);
    lineEndingReport = LineEndingDetector::detect(*backing_, 1'048'576, encoding);
    if (normalisedToLF) lineEndingReport.dominant = LineEnding::lf;
    setWorkingCopy(outcome.workingCopy);
    checkpoints = outcome.checkpoints;
    checkpointedFile.reset();
    struct stat info {};
    if (::stat(outcome.dest.c_str(), &info) == 0) {
        followedFileSize = static_cast<std::int64_t>(info.st_size);
        if (checkpoints) {
            checkpointedFile = std::make_pair(static_cast<std::int64_t>(info.st_size),
                                              static_cast<std::int64_t>(info.st_mtim.tv_sec) * 1'000'000'000 +
                                                  info.st_mtim.tv_nsec);
        }
    }
    followedTail.clear();
    isDirty_ = false;
    bufferDiffersFromFile = false;
    externalChange.reset();
    if (nameChanged) language = Language::detect(outcome.dest.filename().string(), text({0, headSize}));
    notifyChanged(0, DocumentChange::wholesale());
}

bool TextDocument::adoptRewrite(const std::filesystem::path& workingFile, LineIndex index) {
    auto source = readWorkingCopy(workingFile);
    if (!source) return false;
    if (index.byteCount() != source->count()) index = LineIndex(source->count(), index.stride());
    const LoadMode mode = source->count() > 0 ? LoadMode::mapped : LoadMode::memory;
    replaceTable(std::move(source), mode, std::move(index));
    if (workingCopy_) {
        setWorkingCopy(workingFile);
    } else {
        if (rewriteFile_) {
            std::error_code ignored;
            std::filesystem::remove(*rewriteFile_, ignored);
        }
        rewriteFile_ = workingFile;
    }
    checkpoints.reset();
    checkpointedFile.reset();
    clearUndoHistory();
    isDirty_ = true;
    bufferDiffersFromFile = true;
    notifyChanged(0, DocumentChange::wholesale());
    return true;
}

void TextDocument::adoptRenamed(const std::filesystem::path& to) {
    const bool nameChanged = !url || url->filename() != to.filename();
    url = to;
    if (nameChanged) language = Language::detect(to.filename().string(), text({0, headSize}));
}

void TextDocument::becameUntitled() {
    url.reset();
    checkpoints.reset();
    checkpointedFile.reset();
    followedFileSize.reset();
    bufferDiffersFromFile = true;
    isDirty_ = true;
}

TextDocument::Unwritable TextDocument::unwritableCharacters(const TextEncoding& target, std::size_t examples) const {
    if (holdsEveryCharacter(target) || byteCount() > unwritableExamineLimit) return {};
    const auto report = target.unwritable(text({0, byteCount()}), examples);
    return {report.count, report.examples};
}

} // namespace brim
