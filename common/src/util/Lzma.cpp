#include "common/util/Lzma.h"

#include <lzma.h>

#include <algorithm>
#include <memory>

namespace vantor::util
{
namespace
{

// Owns the coder state of one lzma_stream.
class LzmaStream
{
public:
    LzmaStream() = default;
    ~LzmaStream() { lzma_end(&m_stream); }
    LzmaStream(const LzmaStream&) = delete;
    LzmaStream& operator=(const LzmaStream&) = delete;

    lzma_stream* get() { return &m_stream; }

private:
    lzma_stream m_stream = LZMA_STREAM_INIT;
};

// Upload payloads are event documents of some 100 KB: a fast preset costs
// about a third of the CPU of the default one (measured with the upload
// benchmark) for a slightly larger output. Such payloads do not need the
// preset's dictionary either; one sized to the input keeps the encoder's
// allocation proportional.
constexpr uint32_t kPreset = 2;
constexpr uint32_t kMinDictionary = 64 * 1024;

std::string Run(lzma_stream* strm, std::string_view input, std::size_t maxOutput, const char* what)
{
    std::string out;
    out.resize(std::min<std::size_t>(std::max<std::size_t>(input.size() / 2, 4096), maxOutput + 1));
    strm->next_in = reinterpret_cast<const uint8_t*>(input.data());
    strm->avail_in = input.size();
    strm->next_out = reinterpret_cast<uint8_t*>(out.data());
    strm->avail_out = out.size();
    while (true)
    {
        const lzma_ret ret = lzma_code(strm, LZMA_FINISH);
        if (ret == LZMA_STREAM_END)
        {
            out.resize(strm->total_out);
            if (out.size() > maxOutput)
            {
                throw LzmaException(std::string(what) + ": output exceeds the limit");
            }
            return out;
        }
        if (ret != LZMA_OK && ret != LZMA_BUF_ERROR)
        {
            throw LzmaException(std::string(what) + ": liblzma error " + std::to_string(ret));
        }
        if (strm->avail_out == 0)
        {
            if (out.size() > maxOutput)
            {
                throw LzmaException(std::string(what) + ": output exceeds the limit");
            }
            const std::size_t used = out.size();
            out.resize(std::min<std::size_t>(used * 2, maxOutput + 1));
            strm->next_out = reinterpret_cast<uint8_t*>(out.data()) + used;
            strm->avail_out = out.size() - used;
        }
        else if (ret == LZMA_BUF_ERROR)
        {
            // No progress possible with all input consumed: truncated stream.
            throw LzmaException(std::string(what) + ": truncated input");
        }
    }
}

} // namespace

std::string LzmaCompress(std::string_view data)
{
    lzma_options_lzma options;
    if (lzma_lzma_preset(&options, kPreset))
    {
        throw LzmaException("LzmaCompress: invalid preset");
    }
    options.dict_size =
        std::clamp<uint32_t>(static_cast<uint32_t>(std::min<std::size_t>(data.size(), UINT32_MAX)),
                             kMinDictionary, options.dict_size);
    lzma_filter filters[] = {{LZMA_FILTER_LZMA2, &options}, {LZMA_VLI_UNKNOWN, nullptr}};
    LzmaStream strm;
    if (lzma_stream_encoder(strm.get(), filters, LZMA_CHECK_CRC64) != LZMA_OK)
    {
        throw LzmaException("LzmaCompress: cannot initialise the encoder");
    }
    return Run(strm.get(), data, SIZE_MAX - 1, "LzmaCompress");
}

std::string LzmaDecompress(std::string_view data, std::size_t maxOutput)
{
    LzmaStream strm;
    constexpr uint64_t kMemoryLimit = 128 * 1024 * 1024;
    if (lzma_stream_decoder(strm.get(), kMemoryLimit, 0) != LZMA_OK)
    {
        throw LzmaException("LzmaDecompress: cannot initialise the decoder");
    }
    return Run(strm.get(), data, maxOutput, "LzmaDecompress");
}

} // namespace vantor::util
