// Test clips made by the real ffmpeg whose frames carry their own index, and a reader that
// gets the indices back, so that tests can check which frames a file holds and in what order.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace korvalen::testing {

// ffmpeg on the process's PATH; a failed test saying how to get it when there is none.
std::filesystem::path ffmpegOnPath();

// Runs `ffmpeg -v error -y ARGUMENTS... PATH`, creating PATH's folder first; a failed test
// with ffmpeg's words when it fails.
void makeMedia(const std::filesystem::path& ffmpeg, const std::filesystem::path& path,
               const std::vector<std::string>& arguments);

// `frames` frames at `rate` per second, 64×48, H.264. Frame n shows two grey halves whose
// levels spell n in base 16, so up to 256 frames can be told apart after lossy encoding.
void makeNumberedClip(const std::filesystem::path& ffmpeg, const std::filesystem::path& path, int frames, int rate);

// The index a 64x48 BGRA frame made by `makeNumberedClip` carries.
int numberInFrame(const std::uint8_t* bgra, std::int64_t stride);

// The index carried by each frame of a clip made by `makeNumberedClip`, in decoding order.
std::vector<int> frameNumbers(const std::filesystem::path& ffmpeg, const std::filesystem::path& path);

}  // namespace korvalen::testing
