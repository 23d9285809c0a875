// Mdct on libavutil's av_tx.
#include <memory>

extern "C" {
#include <libavutil/tx.h>
}

#include "sdk/media/aac/mdct.h"
#include "sdk/media/ffmpeg/ffmpeg_ptr.h"

namespace tarnel {
namespace audio {
namespace aac {

namespace {

class FfmpegMdct : public Mdct {
 public:
  bool Init(int lines) {
    // av_tx's forward MDCT is the plain cosine sum; our convention doubles it.
    const float scale = 2.0f;
    AVTXContext* context = nullptr;
    const int result =
        av_tx_init(&context, &transform_, AV_TX_FLOAT_MDCT, /*inv=*/0, lines, &scale, 0);
    context_.reset(context);
    return result == 0;
  }

  void Forward(const float* input, float* output) override {
    // av_tx does not write its input; the signature is not const-correct.
    transform_(context_.get(), output, const_cast<float*>(input), sizeof(float));
  }

 private:
  FfmpegPtr<AVTXContext> context_;
  av_tx_fn transform_ = nullptr;
};

}  // namespace

// static
std::unique_ptr<Mdct> Mdct::Create(int lines) {
  auto mdct = std::make_unique<FfmpegMdct>();
  if (lines <= 0 || !mdct->Init(lines)) return nullptr;
  return mdct;
}

}  // namespace aac
}  // namespace audio
}  // namespace tarnel
