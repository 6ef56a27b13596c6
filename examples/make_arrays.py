#!/usr/bin/python3
"""Makes the arrays of this folder. Needs Debian's python3-numpy.

scores.npy     1 x 48 x 1 x 1 float32: what a classifier's last layer might say of picture.png, one score per line
               of labels.txt
embedding.npy  1 x 9 x 1 x 32 float32: one vector per line of words.txt; words of one kind point the same way
"""

import os

import numpy as np

LABELS = """alp, bakery, barn, beach, bridge, canal, canyon, castle, cave, cliff, coast, desert, dune, farm, fjord,
forest, fountain, garden, geyser, glacier, harbour, hill, iceberg, island, lagoon, lake, lighthouse, market, marsh,
meadow, moon, mountain, orchard, pier, plain, reef, river, road, sea, skyline, sunrise, sunset, tunnel, valley,
vineyard, volcano, waterfall, windmill""".replace("\n", " ").split(", ")
SEEN = {"lake": 6.5, "sunset": 6.1, "sunrise": 6.0, "fjord": 5.2, "mountain": 4.9, "lagoon": 3.5, "hill": 3.1}
WORDS = ["lake", "river", "pond", "oak", "pine", "birch", "fox", "wolf", "badger"]


def main():
    folder = os.path.dirname(os.path.abspath(__file__))
    random = np.random.Generator(np.random.PCG64(2024))

    scores = random.normal(0.0, 1.0, len(LABELS))
    for label, score in SEEN.items():
        scores[LABELS.index(label)] = score
    np.save(os.path.join(folder, "scores.npy"), scores.astype(np.float32).reshape(1, -1, 1, 1))
    with open(os.path.join(folder, "labels.txt"), "w", encoding="ascii") as file:
        file.write("\n".join(LABELS) + "\n")

    kinds = random.normal(0.0, 1.0, (3, 32))
    vectors = np.repeat(kinds, 3, axis=0) + random.normal(0.0, 0.45, (len(WORDS), 32))
    vectors *= random.uniform(0.5, 4.0, (len(WORDS), 1))  # lengths differ, so that normalising has work to do
    np.save(os.path.join(folder, "embedding.npy"), vectors.astype(np.float32).reshape(1, len(WORDS), 1, 32))
    with open(os.path.join(folder, "words.txt"), "w", encoding="ascii") as file:
        file.write("\n".join(WORDS) + "\n")


if __name__ == "__main__":
    main()
