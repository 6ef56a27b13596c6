#!/usr/bin/python3
"""Draws picture.png: a lake at sunrise, 768 x 512. Needs Debian's python3-numpy and python3-pil."""

import os

import numpy as np
from PIL import Image

WIDTH, HEIGHT, SAMPLES = 768, 512, 3  # drawn SAMPLES times as large, then averaged
HORIZON = 0.62


def colour(hexadecimal):
    return np.array([int(hexadecimal[i:i + 2], 16) for i in (0, 2, 4)], dtype=float)


def mix(a, b, share):
    share = np.clip(share, 0.0, 1.0)[..., None]
    return a * (1.0 - share) + b * share


def ridge(x, random, roughness):
    """A line of hills over x in 0..1, within about -1..1: waves that halve as they get finer."""
    line = np.zeros_like(x)
    for octave in range(7):
        frequency = 2.0**octave
        phase, bend = random.uniform(0.0, 2.0 * np.pi, 2)
        line += np.sin(2.0 * np.pi * frequency * x * 0.9 + phase + 0.6 * np.sin(2.0 * np.pi * x + bend)) * roughness**octave
    return line * (1.0 - roughness)


def sky(x, y):
    stops = [(0.0, "1d2b53"), (0.25, "4b4f8a"), (0.42, "b5688c"), (0.53, "f2936f"), (0.62, "ffd79a")]
    image = np.broadcast_to(colour(stops[0][1]), y.shape + (3,))
    for (low, _), (high, name) in zip(stops, stops[1:]):
        image = mix(image, colour(name), (y - low) / (high - low))
    sun = np.hypot((x - 0.64) * WIDTH / HEIGHT, y - 0.47)
    image = mix(image, colour("ffe9b8"), 0.85 * np.exp(-(sun / 0.16)**1.3))
    return mix(image, colour("fffbea"), (0.052 - sun) * 400.0)


def land(x, y, image):
    random = np.random.default_rng(11)
    for layer in range(5):
        depth = layer / 4.0
        top = HORIZON - 0.21 + 0.19 * depth - (0.085 - 0.05 * depth) * ridge(x[0], random, 0.5)
        tone = mix(colour("c9849a")[None], colour("1b2440")[None], np.array([depth**0.8]))[0]
        haze = mix(tone[None, None], colour("ffc9a0"), 0.55 * (1.0 - depth) * (y - top + 0.05) / 0.25)
        image = np.where((y > top)[..., None], haze, image)
    return image


def birds(x, y, image):
    for at_x, at_y, size in ((0.22, 0.20, 0.022), (0.27, 0.17, 0.016), (0.31, 0.215, 0.013), (0.18, 0.165, 0.012)):
        across = (x - at_x) / size
        wing = at_y - size * 0.9 * np.abs(np.sin(np.clip(np.abs(across), 0.0, 1.0) * 2.2)) * 0.6
        image = np.where(((np.abs(across) < 1.0) & (np.abs(y - wing) < 0.0022))[..., None], colour("20233f"), image)
    return image


def draw():
    y, x = np.mgrid[0:HEIGHT * SAMPLES, 0:WIDTH * SAMPLES]
    x = (x + 0.5) / (WIDTH * SAMPLES)
    y = (y + 0.5) / (HEIGHT * SAMPLES)
    scene = birds(x, y, land(x, y, sky(x, y)))

    # The lake mirrors what stands above it, broken by waves that grow towards the viewer.
    depth = np.clip((y - HORIZON) / (1.0 - HORIZON), 0.0, 1.0)
    swell = np.sin(260.0 * (1.0 - 0.72 * depth) * depth**0.55 + 3.0 * np.sin(9.0 * x)) + 0.6 * np.sin(37.0 * x + 80.0 * depth)
    source_y = np.clip(2.0 * HORIZON - y + 0.006 * swell * (0.3 + depth), 0.0, HORIZON - 0.002)
    source_x = np.clip(x + 0.004 * swell * depth, 0.0, 1.0 - 1e-9)
    mirrored = scene[(source_y * HEIGHT * SAMPLES).astype(int), (source_x * WIDTH * SAMPLES).astype(int)]
    lake = mix(mirrored, colour("25305c"), 0.22 + 0.33 * depth)
    glitter = (swell > 1.15) & (np.abs(x - 0.64) < 0.02 + 0.12 * depth)
    lake = mix(lake, colour("ffe3ad"), 0.5 * glitter)
    image = np.where((y > HORIZON)[..., None], lake, scene)

    image = image.reshape(HEIGHT, SAMPLES, WIDTH, SAMPLES, 3).mean(axis=(1, 3))
    return Image.fromarray(np.rint(image).astype(np.uint8))


if __name__ == "__main__":
    draw().save(os.path.join(os.path.dirname(os.path.abspath(__file__)), "picture.png"), optimize=True)
