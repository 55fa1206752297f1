#pragma once

// Writes the status number that the menu reads back, as "Result=<n>" with no line feed.
class StatusWriter {
public:
    // Made on first use, never deleted; making it creates the status file's directory.
    static StatusWriter* instance();

    void write(int value);

private:
    StatusWriter();
};
