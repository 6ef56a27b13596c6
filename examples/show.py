#!/usr/bin/python3
"""Shows what scripts/demo has computed. Needs Debian's python3-numpy, python3-pil and fonts-dejavu-core.

show.py top PROBABILITIES POSITIONS LABELS   the most probable classes, found here and by ARGMAX
show.py gram MATRIX WORDS                    a table of similarities
show.py sheet FOLDER PICTURE                 a contact sheet of the picture's way through the layers
"""

import os
import sys

import numpy as np
from PIL import Image, ImageDraw, ImageFont


def lines(path):
    with open(path, encoding="utf-8") as file:
        return file.read().split()


def top(probabilities, positions, labels):
    probabilities = np.load(probabilities).ravel()
    labels = lines(labels)
    print(f"{len(probabilities)} probabilities, their sum is {probabilities.sum(dtype=float):.6f}; the largest:")
    positions = np.load(positions).ravel().astype(int)
    for rank, position in enumerate(positions, start=1):
        print(f"  {rank}. {labels[position]:12} {100 * probabilities[position]:5.2f} %")
    if list(positions) != list(np.argsort(-probabilities)[:len(positions)]):
        sys.exit("ARGMAX and a sort of the probabilities disagree")
    print("ARGMAX found the same positions as a sort of the probabilities does.")


def gram(matrix, words):
    matrix = np.load(matrix)[0, :, 0, :]
    words = lines(words)
    print("         " + "".join(f"{word:>8}" for word in words))
    for word, row in zip(words, matrix):
        print(f"{word:>8} " + "".join(f"{value:8.3f}" for value in row))
    off = np.abs(np.diagonal(matrix) - 1).max()
    print(f"Each vector has length 1 (within {off:.0e}); the matrix is "
          f"{'symmetric' if np.array_equal(matrix, matrix.T) else 'NOT symmetric'}; "
          "words of one kind lie close together.")


def planes(path):
    """Channels x height x width of a file's one batch item."""
    array = np.load(path)
    return array.reshape(array.shape[-3:])


def picture(channels):
    return Image.fromarray(np.ascontiguousarray(np.moveaxis(channels, 0, -1)))


def tiles(channels, columns):
    """Channels side by side, as grey pictures."""
    rows = [np.hstack(channels[i:i + columns]) for i in range(0, len(channels), columns)]
    return Image.fromarray(np.vstack(rows))


def squeezed(memory):
    """The bytes of 512 lines as grey, as wide as the picture."""
    return Image.fromarray(memory.reshape(512, -1)).resize((768, 512), Image.BOX)


def sheet(folder, target):
    def path(name):
        return os.path.join(folder, name)

    batch = np.load(path("batch.npy"))
    stages = [
        ("the picture: 3 channels of 512 x 768", picture(planes(path("picture.npy")))),
        ("space to depth: 12 channels of 256 x 384", tiles(planes(path("depth.npy")), 4)),
        ("depth to space", picture(planes(path("depth-back.npy")))),
        ("channel-last, its bytes row by row", squeezed(np.load(path("channel-last.npy")))),
        ("channel-first again", picture(planes(path("channel-first.npy")))),
        ("4 channels interleaved, lines of 4096 bytes", squeezed(np.fromfile(path("interleaved.bin"), np.uint8))),
        ("planar again", picture(planes(path("planar.npy")))),
        ("space to batch: 6 items of 260 x 260",
         picture(np.concatenate([np.concatenate(batch[i:i + 3], axis=2) for i in (0, 3)], axis=1))),
        ("batch to space, cropped", picture(planes(path("batch-back.npy")))),
        ("pad: reflect", Image.open(path("pad-reflect.png"))),
        ("pad: edge", Image.open(path("pad-edge.png"))),
        ("pad: symmetric", Image.open(path("pad-symmetric.png"))),
        ("pad: constant 96", Image.open(path("pad-constant.png"))),
        ("concat of the four", Image.open(path("concat.png"))),
        ("space to depth, permute, pixel shuffle", Image.open(path("pixelshuffle.png"))),
    ]
    width, height, gap, caption, columns = 384, 256, 16, 28, 3
    rows = -(-len(stages) // columns)
    page = Image.new("RGB", (gap + columns * (width + gap), gap + rows * (height + caption + gap)), "white")
    draw = ImageDraw.Draw(page)
    font = ImageFont.truetype("/usr/share/fonts/truetype/dejavu/DejaVuSans.ttf", 15)
    for i, (text, image) in enumerate(stages):
        left = gap + i % columns * (width + gap)
        upper = gap + i // columns * (height + caption + gap)
        scale = min(width / image.width, height / image.height)
        image = image.convert("RGB").resize((round(image.width * scale), round(image.height * scale)), Image.LANCZOS)
        page.paste(image, (left + (width - image.width) // 2, upper + (height - image.height) // 2))
        draw.text((left + width // 2, upper + height + 5), text, fill="black", font=font, anchor="ma")
    page.save(target)
    print(f"{target} shows every stage")


if __name__ == "__main__":
    {"top": top, "gram": gram, "sheet": sheet}[sys.argv[1]](*sys.argv[2:])
