#!/usr/bin/env python3
"""Writes a Whisper model in whisper.cpp's ggml format with the tensors of ggml-base or ggml-small
and weights that cost the same to load and run as real ones: whisper-cli's timings with it are
those of the real model, its transcript is not.

The decoder is steered so every run ends the same way: its positional embedding points at one text
token for the first positions and at end-of-text after them, so a transcription always decodes
TEXT_TOKENS tokens (a spoken sentence) and stops, whatever the audio, and without the temperature
fallbacks that garbage would set off.

Usage: make_whisper_model.py base|small OUTPUT VOCABULARY_MODEL
VOCABULARY_MODEL is whisper.cpp's for-tests-ggml-tiny.bin: its mel filters and vocabulary are copied.
"""

import math
import os
import random
import struct
import sys

SIZES = {"base": (512, 6, 8), "small": (768, 12, 12)}  # state, layers, heads
N_VOCAB, N_AUDIO_CTX, N_TEXT_CTX, N_MELS = 51865, 1500, 448, 80
F32, F16 = 0, 1
TOKEN_EOT = 50257  # multilingual vocabulary
# Decoder positions before this one lead to the text token, this one and later to end-of-text.
TEXT_TOKENS = 24
STEERED_POSITIONS = 4 + TEXT_TOKENS
# Below 32 tokens whisper.cpp does not judge a repeated token as a failed decoding.
assert TEXT_TOKENS < 32


def header_and_vocabulary(vocabulary_model):
    """The mel filters and vocabulary, and the id of the token the transcript repeats."""
    with open(vocabulary_model, "rb") as f:
        data = f.read()
    rest = data[48:]  # after the magic and the 11 hyperparameters
    n_mel, n_fft = struct.unpack_from("<2i", rest, 0)
    offset = 8 + 4 * n_mel * n_fft
    vocabulary_start = offset
    (n_vocab,) = struct.unpack_from("<i", rest, offset)
    offset += 4
    ids = {}
    for i in range(n_vocab):
        (length,) = struct.unpack_from("<I", rest, offset)
        ids.setdefault(rest[offset + 4 : offset + 4 + length], i)
        offset += 4 + length
    assert vocabulary_start > 0 and offset <= len(rest)
    return rest[:offset], ids.get(" voz".encode(), ids[b" a"])


def tensors(state, layers):
    """(name, ggml shape, type) of every tensor, as whisper.cpp's loader expects them."""
    vec = lambda name: (name, [state], F32)
    mat = lambda name, rows=state, cols=state: (name, [cols, rows], F16)

    def block(prefix, attention):
        out = [vec(f"{prefix}.{attention}_ln.weight"), vec(f"{prefix}.{attention}_ln.bias")]
        for part in ("query", "key", "value", "out"):
            out.append(mat(f"{prefix}.{attention}.{part}.weight"))
            if part != "key":
                out.append(vec(f"{prefix}.{attention}.{part}.bias"))
        return out

    def mlp(prefix):
        return [
            vec(f"{prefix}.mlp_ln.weight"), vec(f"{prefix}.mlp_ln.bias"),
            mat(f"{prefix}.mlp.0.weight", rows=4 * state), (f"{prefix}.mlp.0.bias", [4 * state], F32),
            mat(f"{prefix}.mlp.2.weight", cols=4 * state), vec(f"{prefix}.mlp.2.bias"),
        ]

    out = [
        ("encoder.positional_embedding", [state, N_AUDIO_CTX], F32),
        ("encoder.conv1.weight", [3, N_MELS, state], F16), ("encoder.conv1.bias", [1, state], F32),
        ("encoder.conv2.weight", [3, state, state], F16), ("encoder.conv2.bias", [1, state], F32),
        vec("encoder.ln_post.weight"), vec("encoder.ln_post.bias"),
        ("decoder.positional_embedding", [state, N_TEXT_CTX], F32),
        ("decoder.token_embedding.weight", [state, N_VOCAB], F16),
        vec("decoder.ln.weight"), vec("decoder.ln.bias"),
    ]
    for i in range(layers):
        out += block(f"encoder.blocks.{i}", "attn") + mlp(f"encoder.blocks.{i}")
        out += block(f"decoder.blocks.{i}", "attn") + block(f"decoder.blocks.{i}", "cross_attn")
        out += mlp(f"decoder.blocks.{i}")
    return out


def random_block(fmt, count, scale):
    rng = random.Random(fmt)
    return struct.pack(f"<{count}{fmt}", *(rng.uniform(-scale, scale) for _ in range(count)))


def unit(state, plus, minus):
    """A unit vector with zero mean, so layer normalisation keeps its direction."""
    values = [0.0] * state
    values[plus], values[minus] = math.sqrt(0.5), -math.sqrt(0.5)
    return values


def steered(name, state, text_token):
    """The bytes of the few tensors that decide what the decoder writes, or None for random ones."""
    text_direction, end_direction = unit(state, 0, 1), unit(state, 2, 3)
    if name.endswith("_ln.weight") or name.endswith("ln_post.weight") or name == "decoder.ln.weight":
        return struct.pack(f"<{state}f", *([1.0] * state))
    if name == "decoder.positional_embedding":
        rows = [text_direction if p < STEERED_POSITIONS else end_direction for p in range(N_TEXT_CTX)]
        return b"".join(struct.pack(f"<{state}f", *(50 * x for x in row)) for row in rows)
    if name == "decoder.token_embedding.weight":
        noise = random_block("e", state, 0.02)
        rows = {text_token: text_direction, TOKEN_EOT: end_direction}
        return b"".join(
            struct.pack(f"<{state}e", *(2 * x for x in rows[t])) if t in rows else noise for t in range(N_VOCAB)
        )
    return None


def write_tensor(out, name, shape, kind, payload, blocks):
    encoded = name.encode()
    out.write(struct.pack(f"<3i{len(shape)}i", len(shape), len(encoded), kind, *shape))
    out.write(encoded)
    if payload is None:
        size = math.prod(shape) * (4 if kind == F32 else 2)
        block = blocks[kind]
        payload = block * (size // len(block)) + block[: size % len(block)]
    out.write(payload)


def main():
    size, output, vocabulary_model = sys.argv[1:4]
    state, layers, heads = SIZES[size]
    filters_and_vocabulary, text_token = header_and_vocabulary(vocabulary_model)
    # Small values (|w| <= 0.02) keep every activation finite; one block repeated writes fast.
    blocks = {F32: random_block("f", 1 << 16, 0.02), F16: random_block("e", 1 << 18, 0.02)}
    partial = output + ".part"
    with open(partial, "wb") as out:
        out.write(struct.pack("<I11i", 0x67676D6C, N_VOCAB, N_AUDIO_CTX, state, heads, layers,
                              N_TEXT_CTX, state, heads, layers, N_MELS, F16))
        out.write(filters_and_vocabulary)
        for name, shape, kind in tensors(state, layers):
            write_tensor(out, name, shape, kind, steered(name, state, text_token), blocks)
    os.replace(partial, output)


if __name__ == "__main__":
    main()
