"""Reads what TestPicture draws into its pictures, from the browser's own pixels."""
import datetime

# Rows from the top, the left dot first; independent of what draws them.
GLYPHS = {
    "0": "01110 10001 10011 10101 11001 10001 01110", "1": "00100 01100 00100 00100 00100 00100 01110",
    "2": "01110 10001 00001 00010 00100 01000 11111", "3": "11111 00010 00100 00010 00001 10001 01110",
    "4": "00010 00110 01010 10010 11111 00010 00010", "5": "11111 10000 11110 00001 00001 10001 01110",
    "6": "00110 01000 10000 11110 10001 10001 01110", "7": "11111 00001 00010 00100 01000 01000 01000",
    "8": "01110 10001 10001 01110 10001 10001 01110", "9": "01110 10001 10001 01111 00001 00010 01100",
    "-": "00000 00000 00000 01110 00000 00000 00000", ".": "00000 00000 00000 00000 00000 01100 01100",
    ":": "00000 01100 01100 00000 01100 01100 00000", "T": "11111 00100 00100 00100 00100 00100 00100",
    "Z": "11111 00001 00010 00100 01000 10000 11111",
}
SCRIPT = """
const video = document.querySelector("video");
const canvas = document.createElement("canvas");
canvas.width = video.videoWidth;
canvas.height = video.videoHeight;
const context = canvas.getContext("2d");
context.drawImage(video, 0, 0);
const scale = Math.max(1, Math.floor(canvas.width / (26 * 6)));
const read = (line, count) => Array.from({length: count}, (_, character) =>
  Array.from({length: 7}, (_, row) => Array.from({length: 5}, (_, column) => {
    const x = (1 + character) * 6 * scale + column * scale + (scale >> 1);
    const y = line * 9 * scale + row * scale + (scale >> 1);
    return context.getImageData(x, y, 1, 1).data[1] > 120 ? "1" : "0";
  }).join("")).join(" "));
return [document.querySelector("#clock-time").dateTime, read(1, 8), read(2, 24)];
"""


def _text(patterns):
    def best(pattern):
        return min(GLYPHS, key=lambda glyph: sum(a != b for a, b in zip(GLYPHS[glyph], pattern)))
    return "".join(map(best, patterns))


def time_of(text):
    return datetime.datetime.fromisoformat(text.replace("Z", "+00:00")).timestamp()


def read_picture(browser):
    """(number of the frame, its time, the time that the page says) of the picture that is shown."""
    said, number, time = browser.execute_script(SCRIPT)
    return int(_text(number)), time_of(_text(time)), time_of(said)
