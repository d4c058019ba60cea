#pragma once

// Placeholder with the updater's path constants until the updater itself is merged.
class OrvelloUpdater { public: static constexpr char TMP_DOWNLOAD_PATH[] = "/tmp/orvello"; static constexpr char TMP_DOWNLOAD_DEST[] = "/tmp/orvello/liboplayer-1.so"; };
