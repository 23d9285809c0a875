#include "tools/tarnel_record/options.h"

#include "sdk/media/audio_encoder.h"

#include <cstdlib>
#include <sstream>

namespace tarnel_record {

namespace {

bool ParseInt(const std::string& text, int64_t* value) {
  if (text.empty()) return false;
  char* end = nullptr;
  *value = std::strtoll(text.c_str(), &end, 10);
  return end && *end == '\0';
}

bool ParseRange(const std::string& text, char separator, int64_t* first, int64_t* second) {
  const size_t at = text.find(separator, 1);
  return at != std::string::npos && ParseInt(text.substr(0, at), first) &&
         ParseInt(text.substr(at + 1), second);
}

std::string ExtensionOf(const std::string& path) {
  const size_t slash = path.find_last_of('/');
  const size_t dot = path.find_last_of('.');
  if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) return "";
  std::string ext = path.substr(dot + 1);
  for (char& c : ext) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return ext;
}

}  // namespace

std::string HelpText() {
  return R"(Usage: tarnel-record [options] [input options] -i INPUT [[input options] -i INPUT]
                     -o OUTPUT

Feeds a live or recorded stream through the Tarnel local recorder, the way an
application does, and writes OUTPUT. One input with video and audio, or a video
input followed by an audio input. Inputs are anything FFmpeg's libavformat reads:
MP4/MKV/TS files, raw .h264/.h265 Annex-B streams, WAV or raw PCM, rtsp:// or udp://.

Input options apply, as in ffmpeg, to the next -i only; give them before the -i they
are for. One given after the last -i is an error. Every other option is about the whole
recording and may go anywhere. E.g. raw H.264 and raw PCM:
  tarnel-record -f h264 --video-fps 30 -i cam.h264 \
                -f s16le --pcm-rate 48000 --pcm-channels 2 -i mic.pcm -o call.mp4

Input options:
  -f, --input-format FMT  force the demuxer, e.g. h264, hevc, s16le   (default: probe)
  --video-fps FPS         frame rate of a raw video stream            (default: 25)
  --pcm-rate HZ           sample rate of raw PCM input                (default: none)
  --pcm-channels N        channel count of raw PCM input, 1 or 2      (default: none)

Inputs:
  -i INPUT                input file or URL (give twice for separate video and audio)
  --audio-passthrough     hand AAC audio over as AAC instead of decoding it to PCM
                                                                      (default: off)
Recording:
  -o OUTPUT               output path (segments add _1, _2, ... before the extension)
  --format FMT            mp4, mkv, wav, m4a or aac        (default: from OUTPUT's extension)
  --type TYPE             av, audio or video   (default: av; audio for wav, m4a and aac)
  --segment SECONDS       split the output into segments of SECONDS     (default: 0, one file)
  --stereo                record two audio channels                     (default: mono)
  --fill-muted            fill gaps in the audio with silence           (default: off)
  --progress-ms MS        progress report period                        (default: 1000)
  --aac-encoder NAME      tarnel (ours), twoloop or fast (libavcodec's coders) for PCM
                          encoded to AAC                                (default: tarnel)
  --max-queue-mb N        media the recorder may hold before it drops frames, in MiB
                                                                        (default: )" +
         std::to_string(tarnel::recording::kDefaultMaxQueueBytes >> 20) + R"()

Pacing:
  --realtime              hand frames over at their own timestamps from a video and an
                          audio thread, as a live source would (default for files)
  --fast                  hand frames over as fast as the recorder takes them
  --burst                 hand frames over as fast as the inputs are read, never waiting
                          for the recorder, as a source delivering a backlog does; what
                          goes beyond --max-queue-mb is dropped

Fault injection (times are source times in ms):
  --drop-audio FROM-TO    leave out the audio between FROM and TO (a source pause)
  --jump-video AT:DELTA   from AT on, add DELTA ms to the video timestamps
  --jump-audio AT:DELTA   from AT on, add DELTA ms to the audio timestamps
  --resize-at MS          from MS on, report a different picture size

Output:
  --json                  print the summary as one JSON object, and nothing else
  -h, --help              show this help
On a terminal a status line shows, at every progress report, the media time recorded,
the output's size, its bit rate, the speed (media time / wall time) and the frames the
recorder dropped. When stderr is not a terminal it is printed as one line per report
with --progress-ms only.

Repair (instead of recording):
  --repair FILE           finish an MP4/M4A that a crash left fragmented, in place, into
                          the standard file a clean stop makes; refuses other files

Exit status: 0 when the recording completed with Ok; 1 for usage or input errors;
2 when the recorder refused to start or the recording ended with an error. With
--repair: 0 when the file is (now, or already) a finished MP4, 2 when it was refused
or could not be written.
)";
}

bool ParseOptions(int argc, char** argv, Options* options, bool* help, std::string* error) {
  *help = false;
  // The input options seen since the last -i, and how they were spelled (for the
  // message when no -i follows them).
  SourceOptions next_input;
  std::vector<std::string> pending;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    auto value = [&](std::string* out) {
      if (i + 1 >= argc) {
        *error = arg + " needs a value";
        return false;
      }
      *out = argv[++i];
      return true;
    };
    auto number = [&](int64_t* out) {
      std::string text;
      if (!value(&text)) return false;
      if (!ParseInt(text, out)) {
        *error = arg + " needs a whole number, not \"" + text + "\"";
        return false;
      }
      return true;
    };
    // Notes an input option just read with its value.
    auto input_option = [&] { pending.push_back(arg + " " + argv[i]); };
    std::string text;
    int64_t n = 0;
    if (arg == "-h" || arg == "--help") {
      *help = true;
      return true;
    } else if (arg == "-i") {
      if (!value(&next_input.url)) return false;
      options->inputs.push_back(next_input);
      next_input = SourceOptions();
      pending.clear();
    } else if (arg == "-o") {
      if (!value(&options->output)) return false;
    } else if (arg == "-f" || arg == "--input-format") {
      if (!value(&next_input.input_format)) return false;
      input_option();
    } else if (arg == "--video-fps") {
      if (!value(&text)) return false;
      next_input.video_fps = std::atof(text.c_str());
      if (next_input.video_fps <= 0) {
        *error = "--video-fps needs a positive frame rate";
        return false;
      }
      input_option();
    } else if (arg == "--pcm-rate") {
      if (!number(&n)) return false;
      if (n <= 0 || n > 1000000) {
        *error = "--pcm-rate needs a sample rate in Hz, e.g. 48000";
        return false;
      }
      next_input.pcm_sample_rate = static_cast<int>(n);
      input_option();
    } else if (arg == "--pcm-channels") {
      if (!number(&n)) return false;
      if (n != 1 && n != 2) {
        *error = "--pcm-channels must be 1 or 2";
        return false;
      }
      next_input.pcm_channels = static_cast<int>(n);
      input_option();
    } else if (arg == "--audio-passthrough") {
      options->audio_passthrough = true;
    } else if (arg == "--format") {
      if (!value(&options->format)) return false;
    } else if (arg == "--aac-encoder") {
      if (!value(&options->aac_encoder)) return false;
      tarnel::audio::AacEncoderKind kind;
      if (!tarnel::audio::ParseAacEncoderKind(options->aac_encoder, &kind)) {
        *error = "--aac-encoder must be tarnel, twoloop or fast, not " + options->aac_encoder;
        return false;
      }
    } else if (arg == "--type") {
      if (!value(&options->type)) return false;
    } else if (arg == "--segment") {
      if (!number(&n)) return false;
      options->segment_seconds = static_cast<int>(n);
    } else if (arg == "--stereo") {
      options->stereo = true;
    } else if (arg == "--fill-muted") {
      options->fill_muted = true;
    } else if (arg == "--progress-ms") {
      if (!number(&n)) return false;
      options->progress_ms = static_cast<int>(n);
      options->progress_ms_given = true;
    } else if (arg == "--max-queue-mb") {
      if (!number(&n)) return false;
      // The bound is N << 20 bytes in an int64_t.
      if (n <= 0 || n > (int64_t{1} << 30)) {
        *error = "--max-queue-mb needs a positive number of MiB";
        return false;
      }
      options->max_queue_mb = n;
    } else if (arg == "--realtime") {
      options->pacing = Options::Pacing::kRealtime;
    } else if (arg == "--fast") {
      options->pacing = Options::Pacing::kFast;
    } else if (arg == "--burst") {
      options->pacing = Options::Pacing::kBurst;
    } else if (arg == "--json") {
      options->json = true;
    } else if (arg == "--drop-audio") {
      int64_t from = 0, to = 0;
      if (!value(&text)) return false;
      if (!ParseRange(text, '-', &from, &to) || to <= from) {
        *error = "--drop-audio needs FROM-TO in ms, e.g. 3000-4000";
        return false;
      }
      options->drop_audio_ms = std::make_pair(from, to);
    } else if (arg == "--jump-video" || arg == "--jump-audio") {
      TimestampJump jump;
      if (!value(&text)) return false;
      if (!ParseRange(text, ':', &jump.at_ms, &jump.delta_ms)) {
        *error = arg + " needs AT:DELTA in ms, e.g. 5000:8000";
        return false;
      }
      (arg == "--jump-video" ? options->jump_video : options->jump_audio) = jump;
    } else if (arg == "--resize-at") {
      if (!number(&n)) return false;
      options->resize_at_ms = n;
    } else if (arg == "--repair") {
      if (!value(&options->repair)) return false;
    } else {
      *error = "unknown option " + arg + " (see --help)";
      return false;
    }
  }
  if (!options->repair.empty()) return true;
  if (!pending.empty()) {
    std::string given;
    for (const std::string& option : pending) given += (given.empty() ? "" : " ") + option;
    *error = "trailing option(s) found: " + given +
             " after the last -i apply to no input; input options go before the -i they "
             "are for";
    return false;
  }
  if (options->inputs.empty()) {
    *error = "no input given (-i INPUT)";
    return false;
  }
  if (options->inputs.size() > 2) {
    *error = "at most two inputs: one for video and one for audio";
    return false;
  }
  if (options->output.empty()) {
    *error = "no output given (-o OUTPUT)";
    return false;
  }
  return true;
}

bool CheckInputOptionsApply(const SourceOptions& input, bool has_video, bool has_audio,
                            std::string* error) {
  std::string unused;
  if (input.video_fps > 0 && !has_video) unused = "--video-fps";
  if (input.pcm_sample_rate > 0 && !has_audio) unused = "--pcm-rate";
  if (input.pcm_channels > 0 && !has_audio) unused = "--pcm-channels";
  if (unused.empty()) return true;
  *error = unused + " applies to the -i after it, " + input.url + ", which gives no " +
           (unused == "--video-fps" ? "video" : "audio") +
           " to the recording; input options go before the -i they are for";
  return false;
}

bool ToRecordingParams(const Options& options,
                       tarnel::recording::LocalRecordingInitialParams* params, std::string* error) {
  namespace msw = tarnel::media_stream_writer;
  const std::string format = options.format.empty() ? ExtensionOf(options.output) : options.format;
  if (format == "mp4") {
    params->media_format = msw::kMp4;
  } else if (format == "mkv") {
    params->media_format = msw::kMkv;
  } else if (format == "wav") {
    params->media_format = msw::kWav;
  } else if (format == "m4a") {
    params->media_format = msw::kM4a;
  } else if (format == "aac") {
    params->media_format = msw::kAac;
  } else {
    *error = format.empty() ? "cannot tell the format from \"" + options.output +
                                  "\": give --format mp4|mkv|wav|m4a|aac"
                            : "unknown format \"" + format + "\": use mp4, mkv, wav, m4a or aac";
    return false;
  }
  const bool audio_only_format = format == "wav" || format == "m4a" || format == "aac";
  const std::string type =
      options.type.empty() ? (audio_only_format ? "audio" : "av") : options.type;
  if (type == "av") {
    params->record_type = tarnel::recording::kAudioAndVideo;
  } else if (type == "audio") {
    params->record_type = tarnel::recording::kAudioOnly;
  } else if (type == "video") {
    params->record_type = tarnel::recording::kVideoOnly;
  } else {
    *error = "unknown record type \"" + type + "\": use av, audio or video";
    return false;
  }
  params->file_path = options.output;
  params->segment_interval = options.segment_seconds;
  params->stereo_audio = options.stereo;
  params->fill_muted_frame = options.fill_muted;
  params->progress_interval_ms = options.progress_ms;
  return true;
}

}  // namespace tarnel_record
