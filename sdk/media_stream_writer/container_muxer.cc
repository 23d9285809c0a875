#include "sdk/media_stream_writer/container_muxer.h"

#include "sdk/media_stream_writer/ffmpeg/ffmpeg_container_muxer.h"
#include "sdk/media_stream_writer/mp4/mp4_muxer.h"

namespace tarnel {
namespace media_stream_writer {

std::unique_ptr<ContainerMuxer> ContainerMuxer::Create(Container container,
                                                       const std::string& path) {
  if (container == kMp4 || container == kM4a) return mp4::Mp4Muxer::Create(container == kM4a, path);
  return FfmpegContainerMuxer::Create(container, path);
}

}  // namespace media_stream_writer
}  // namespace tarnel
