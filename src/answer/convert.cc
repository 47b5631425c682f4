// kal-answer-convert: any audio file libsndfile reads -> the line's format
// (8000 Hz, mono, 8-bit unsigned, no header). The build speaks kal-answer's
// prompts with espeak-ng and converts them with this; people may use it to
// see what a greeting will sound like on the line.

#include <iostream>

#include "answer/audio.h"

int main(int argc, char** argv) {
    if (argc != 3) {
        std::cerr << "usage: kal-answer-convert IN OUT.raw\n";
        return 2;
    }
    try {
        kal::answer::write_raw(argv[2], kal::answer::decode_for_line(argv[1]));
    } catch (const std::exception& e) {
        std::cerr << "kal-answer-convert: " << e.what() << std::endl;
        return 1;
    }
    return 0;
}
