// Base64 throughput on 64 MiB of random data: the library's encoders and decoders against
// OpenSSL's EVP_EncodeBlock / EVP_DecodeBlock in the same run. The library wraps its lines (72
// characters) and decodes wrapped text that mixes both alphabets line by line; OpenSSL's block
// functions neither wrap nor accept line breaks, so they get one unbroken line. Every side
// allocates its output on each call, as a caller would. Ends with the ratios of the medians.
#include <QZApp/QZCrypto.h>

#include <benchmark/benchmark.h>
#include <openssl/evp.h>

#include <QRandomGenerator>

#include <sys/mman.h>

#include <cstdint>
#include <cstdio>
#include <map>
#include <string>

namespace {

constexpr qsizetype kDataSize = 64 * 1024 * 1024;

const QByteArray &data()
{
    static const QByteArray bytes = [] {
        QByteArray b(kDataSize, Qt::Uninitialized);
        QRandomGenerator generator(2024);
        generator.fillRange(reinterpret_cast<quint32 *>(b.data()), b.size() / 4);
        return b;
    }();
    return bytes;
}

// Wrapped text with every other line in the URL-safe alphabet.
const QByteArray &mixedText()
{
    static const QByteArray text = [] {
        QByteArray t = QZ::base64Encoded(data());
        bool urlSafe = false;
        for (char &c : t) {
            if (c == '\n')
                urlSafe = !urlSafe;
            else if (urlSafe && c == '+')
                c = '-';
            else if (urlSafe && c == '/')
                c = '_';
        }
        return t;
    }();
    return text;
}

const QByteArray &plainText()
{
    static const QByteArray text = data().toBase64();
    return text;
}

// The hint the library gives for its own large outputs, for the OpenSSL variants that get it too.
void adviseHugePages(QByteArray &buffer)
{
    constexpr uintptr_t kHugePage = 2 * 1024 * 1024;
    const auto begin = reinterpret_cast<uintptr_t>(buffer.data());
    const uintptr_t start = (begin + kHugePage - 1) & ~(kHugePage - 1);
    const uintptr_t end = (begin + buffer.size()) & ~(kHugePage - 1);
    madvise(reinterpret_cast<void *>(start), end - start, MADV_HUGEPAGE);
}

void finish(benchmark::State &state)
{
    state.SetBytesProcessed(state.iterations() * kDataSize);
}

void EncodeQString(benchmark::State &state)
{
    for (auto _ : state)
        benchmark::DoNotOptimize(QZ::base64(data()));
    finish(state);
}

void EncodeBytes(benchmark::State &state)
{
    for (auto _ : state)
        benchmark::DoNotOptimize(QZ::base64Encoded(data()));
    finish(state);
}

// `hugePages`: 0 for a plain buffer, as a caller allocates it; 1 for one with the library's hint.
void EncodeOpenSSL(benchmark::State &state)
{
    for (auto _ : state) {
        QByteArray out((kDataSize + 2) / 3 * 4 + 1, Qt::Uninitialized);
        if (state.range(0))
            adviseHugePages(out);
        EVP_EncodeBlock(reinterpret_cast<unsigned char *>(out.data()),
                        reinterpret_cast<const unsigned char *>(data().constData()), int(kDataSize));
        benchmark::DoNotOptimize(out);
    }
    finish(state);
}

void DecodeQString(benchmark::State &state)
{
    const QString text = QString::fromLatin1(mixedText());
    for (auto _ : state)
        benchmark::DoNotOptimize(QZ::dataWithBase64(text));
    finish(state);
}

void DecodeBytes(benchmark::State &state)
{
    const QByteArray &text = mixedText();
    for (auto _ : state)
        benchmark::DoNotOptimize(QZ::dataWithBase64(QByteArrayView(text)));
    finish(state);
}

void DecodeOpenSSL(benchmark::State &state)
{
    const QByteArray &text = plainText();
    for (auto _ : state) {
        QByteArray out(text.size() / 4 * 3, Qt::Uninitialized);
        if (state.range(0))
            adviseHugePages(out);
        if (EVP_DecodeBlock(reinterpret_cast<unsigned char *>(out.data()),
                            reinterpret_cast<const unsigned char *>(text.constData()), int(text.size())) < 0)
            state.SkipWithError("EVP_DecodeBlock failed");
        benchmark::DoNotOptimize(out);
    }
    finish(state);
}

#define QZ_BASE64_BENCHMARK(function) \
    BENCHMARK(function)->Unit(benchmark::kMillisecond)->Repetitions(5)->ReportAggregatesOnly(true)

QZ_BASE64_BENCHMARK(EncodeQString);
QZ_BASE64_BENCHMARK(EncodeBytes);
QZ_BASE64_BENCHMARK(EncodeOpenSSL)->ArgName("hugePages")->Arg(0)->Arg(1);
QZ_BASE64_BENCHMARK(DecodeQString);
QZ_BASE64_BENCHMARK(DecodeBytes);
QZ_BASE64_BENCHMARK(DecodeOpenSSL)->ArgName("hugePages")->Arg(0)->Arg(1);

// The console report, plus each benchmark's median throughput for the ratios.
class RatioReporter : public benchmark::ConsoleReporter
{
public:
    void ReportRuns(const std::vector<Run> &reports) override
    {
        ConsoleReporter::ReportRuns(reports);
        for (const Run &run : reports) {
            if (run.aggregate_name == "median")
                medians[run.run_name.function_name + run.run_name.args] = run.counters.at("bytes_per_second");
        }
    }
    std::map<std::string, double> medians;
};

} // namespace

int main(int argc, char **argv)
{
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    data();
    mixedText();
    plainText();
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();

    const auto mbs = [&](const std::string &name) { return reporter.medians[name] / 1e6; };
    std::printf("\nmedian MB/s of input data (64 MiB), and the ratios to OpenSSL's block function with a\n"
                "plain output buffer and with one that has the library's huge-page hint:\n");
    for (const std::string name : { "EncodeQString", "EncodeBytes", "DecodeQString", "DecodeBytes" }) {
        const std::string openssl = name[0] == 'E' ? "EncodeOpenSSL" : "DecodeOpenSSL";
        const std::string plain = openssl + "hugePages:0", hinted = openssl + "hugePages:1";
        if (!reporter.medians.count(name) || !reporter.medians.count(plain) || !reporter.medians.count(hinted))
            continue;
        std::printf("  %-14s %6.0f MB/s   %s %6.0f / %6.0f MB/s   ratios %.2f / %.2f\n", name.c_str(),
                    mbs(name), openssl.c_str(), mbs(plain), mbs(hinted), mbs(name) / mbs(plain), mbs(name) / mbs(hinted));
    }
    return 0;
}
