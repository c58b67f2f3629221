// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_RECEIVER_IMAGE_H
#define TALLYRA_TESTS_RECEIVER_IMAGE_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

/// Writes bytes into the image of a record at an offset.
inline void Put(std::vector<std::uint8_t>& image, std::size_t nOffset, std::string_view bytes) {
    std::copy(bytes.begin(), bytes.end(), image.begin() + static_cast<std::ptrdiff_t>(nOffset));
}

/// @return an image of zeros except for the playback "p1", the application "app" and the event
inline std::vector<std::uint8_t> MakeImage(std::uint8_t event) {
    std::vector<std::uint8_t> image(4800, 0);
    Put(image, 2, "p1");
    Put(image, 39, "app");
    image[92] = event;
    return image;
}

#endif  // TALLYRA_TESTS_RECEIVER_IMAGE_H
