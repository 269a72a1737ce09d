// qzutil base64: Base64 encoding and decoding of a stream, raw bytes on standard output. Part of
// the program itself (not the command module), so that it starts with nothing but Qt Core loaded.
//
// Both directions read and write through buffers of fixed size, whatever the input's size, with
// plain read() and write() calls: no copy through stdio, and the buffers' pages are faulted in
// once.
#include "Command.h"

#include <QZApp/QZCrypto.h>

#include <QFile>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <unistd.h>

namespace qzutil {
namespace {

// Input taken per step. Large enough that system calls cost little, small enough that what is
// read, decoded and written stays in the processor's caches.
constexpr qsizetype kBlock = 1 << 20;

QString systemError(int error)
{
    return QString::fromLocal8Bit(std::strerror(error));
}

// Fills `buffer` from `fd` up to `size` bytes; the number of bytes read (fewer only at the end),
// or -1 on a read error.
qsizetype readFull(int fd, char *buffer, qsizetype size)
{
    qsizetype filled = 0;
    while (filled < size) {
        const ssize_t got = ::read(fd, buffer + filled, static_cast<size_t>(size - filled));
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0)
            return -1;
        if (got == 0)
            break;
        filled += got;
    }
    return filled;
}

// Writes all of `bytes` to standard output; false (errno set) when that fails.
bool writeAll(const char *bytes, qsizetype size)
{
    while (size > 0) {
        const ssize_t put = ::write(STDOUT_FILENO, bytes, static_cast<size_t>(size));
        if (put < 0 && errno == EINTR)
            continue;
        if (put < 0)
            return false;
        bytes += put;
        size -= put;
    }
    return true;
}

int writeFailed()
{
    return fail(QStringLiteral("standard output: %1").arg(systemError(errno)));
}

int readFailed(const QString &name)
{
    return fail(QStringLiteral("%1: %2").arg(name, systemError(errno)));
}

// A pipe on standard output holds 64 KiB unless asked for more: a larger one lets each write
// hand over a whole block instead of waking the reader sixteen times. Only a wish: when the
// system refuses (or the output is no pipe), everything works as before.
void widenOutputPipe()
{
    fcntl(STDOUT_FILENO, F_SETPIPE_SZ, static_cast<int>(kBlock));
}

// Writes the bytes that the Base64 text on `fd` stands for, decoding block by block: the
// output equals QZ::dataWithBase64() of the whole input, since a group cut by the end of a block
// is completed by the next.
int decodeStream(int fd, const QString &name)
{
    QByteArray input(kBlock, Qt::Uninitialized);
    QByteArray output(QZ::Base64Decoder::maximumDecodedSize(kBlock), Qt::Uninitialized);
    QZ::Base64Decoder decoder;
    for (qsizetype length = kBlock; length == kBlock;) {
        length = readFull(fd, input.data(), kBlock);
        if (length < 0)
            return readFailed(name);
        qsizetype decoded = decoder.decode(QByteArrayView(input.constData(), length), output.data());
        if (length < kBlock)
            decoded += decoder.finish(output.data() + decoded);
        if (!writeAll(output.constData(), decoded))
            return writeFailed();
    }
    return Success;
}

// Writes the Base64 text of the input on `fd` and a final line break, encoding a run of whole
// lines at a time so that input of any size streams through a buffer of about a megabyte. A
// width whose one line would not fit reads the input whole.
int encodeStream(int fd, const QString &name, QZ::Base64Alphabet alphabet, quint32 width,
                 QZ::Base64LineBreak lineBreak)
{
    const QByteArray breakBytes = lineBreak == QZ::Base64LineBreak::CarriageReturnLineFeed ? "\r\n" : "\n";
    const qsizetype lineBytes = qsizetype(width < 4 ? 1 : width / 4) * 3;
    const qsizetype runBytes = lineBytes > kBlock ? 0 : kBlock / lineBytes * lineBytes;
    QByteArray buffer(runBytes > 0 ? runBytes : 64 * 1024, Qt::Uninitialized);
    QByteArray whole;   // the input when one line is longer than a block
    bool wrote = false;
    for (qsizetype length = buffer.size(); length == buffer.size();) {
        length = readFull(fd, buffer.data(), buffer.size());
        if (length < 0)
            return readFailed(name);
        if (runBytes == 0) {
            whole.append(buffer.constData(), length);
            if (length == buffer.size())
                continue;
        }
        const QByteArrayView run = runBytes == 0 ? QByteArrayView(whole) : QByteArrayView(buffer.constData(), length);
        if (run.isEmpty())
            break;
        // Each run ends with a whole line; a width below 4 starts every group with its break.
        const QByteArray text = QZ::base64Encoded(run, alphabet, width, lineBreak);
        if (text.isNull())
            return fail(QStringLiteral("%1: too large to encode").arg(name));
        if ((wrote && width >= 4 && !writeAll(breakBytes.constData(), breakBytes.size()))
            || !writeAll(text.constData(), text.size()))
            return writeFailed();
        wrote = true;
    }
    if (wrote && !writeAll(breakBytes.constData(), breakBytes.size()))
        return writeFailed();
    return Success;
}

int base64(const Invocation &invocation)
{
    const bool decode = invocation.isSet("decode");
    const bool url = invocation.isSet("url");
    const bool mime = invocation.isSet("mime");
    std::optional<quint64> width;
    if (invocation.isSet("width") && (!(width = parseUnsigned(invocation.value("width"))) || *width > 0xFFFFFFFFu))
        return usage("base64");
    const std::optional<QString> operand = inputPath(invocation);
    if (!operand)
        return usage("base64");
    const QString &path = *operand;
    // The decoder takes both alphabets and any line breaks: the layout options are for encoding.
    if (decode && (url || mime || width))
        return usage("base64");

    QString error;
    QFile input;
    if (!openInput(input, path, &error))
        return fail(error);
    std::fflush(stdout);
    widenOutputPipe();
    if (decode)
        return decodeStream(input.handle(), inputName(path));
    return encodeStream(input.handle(), inputName(path), url ? QZ::Base64Alphabet::UrlSafe : QZ::Base64Alphabet::Standard,
                        static_cast<quint32>(width.value_or(mime ? 70 : 72)),
                        mime ? QZ::Base64LineBreak::CarriageReturnLineFeed : QZ::Base64LineBreak::LineFeed);
}

QZUTIL_COMMAND(.name = "base64", .usage = "[--decode] [--url] [--mime] [--width N] [FILE]",
               .summary = "encode standard input or FILE as Base64, or decode it", .run = base64,
               .options = { { "decode", nullptr, "print the bytes of Base64 text in either alphabet, with any\n"
                                                 "line breaks (takes none of the other options)" },
                            { "url", nullptr, "encode with the URL-safe alphabet ('-' and '_')" },
                            { "mime", nullptr, "lines of at most 70 characters ended by CR LF" },
                            { "width", "N", "lines of at most N characters (whole groups of four; default 72;\n"
                                            "below 4, a break before every group)" } },
               .operands = { { "FILE", "the input; standard input when absent or \"-\"" } });

} // namespace
} // namespace qzutil
