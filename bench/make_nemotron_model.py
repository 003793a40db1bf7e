#!/usr/bin/env python3
"""Writes a GGUF model with the layout of NVIDIA's Nemotron 3.5 ASR Streaming 0.6B as transcribe.cpp
loads it (the parakeet family's cache-aware streaming RNN-T with its language prompt) and made-up
weights. The real-size model costs what the published one costs to load and run; the toy one keeps
every tensor and setting but is a few MB, for the tests. Neither says anything sensible: the text is
made-up words, the same for the same audio, different for different audio.

Usage: make_nemotron_model.py real|toy Q8_0|Q4_K_M OUTPUT
"""

import math
import os
import random
import struct
import sys

# (layers, d_model, heads, d_ff, subsampling channels, predictor, joint, prompt hidden, vocabulary)
SIZES = {
    "real": (24, 1024, 8, 4096, 256, 640, 640, 2048, 13087),
    "toy": (2, 64, 2, 256, 32, 64, 64, 64, 509),
}
CONV_KERNEL, SUBSAMPLING, N_MELS, NUM_PROMPTS = 9, 8, 128, 128
# The training menu of (left, right) attention contexts in encoder frames, the default first.
ATT_CONTEXTS = [(56, 13), (56, 6), (56, 3), (56, 0)]
LANGUAGES = ["en-US", "en-GB", "es-US", "es-ES", "fr-FR", "fr-CA", "it-IT", "pt-BR", "pt-PT", "nl-NL", "de-DE",
             "tr-TR", "ru-RU", "ar-AR", "hi-IN", "ja-JP", "ko-KR", "vi-VN", "uk-UA", "pl-PL", "sv-SE", "cs-CZ",
             "nb-NO", "da-DK", "bg-BG", "fi-FI", "hr-HR", "sk-SK", "zh-CN", "hu-HU", "ro-RO", "et-EE"]
PROMPT_LOCALES = LANGUAGES + ["el-GR", "lt-LT", "lv-LV", "mt-MT", "sl-SI", "he-IL", "th-TH", "nn-NO"]
AUTO_PROMPT = NUM_PROMPTS - 1
# How much more likely "nothing new" (the transducer's blank) is than any word piece, by size: a
# model that emitted on every frame would decode far slower than a trained one.
BLANK_BIAS = {"real": float(os.environ.get("BB", "2")), "toy": 0.7}

# ggml types: (id, values per block, bytes per block)
F32, F16, Q8_0, Q4_K, Q6_K = (0, 1, 4), (1, 1, 2), (8, 32, 34), (12, 256, 144), (14, 256, 210)
# transcribe-quantize's presets: (linear, linear whose rows do not fit its blocks, attention output)
PRESETS = {"Q8_0": (Q8_0, F16, Q8_0, 7), "Q4_K_M": (Q4_K, Q8_0, Q8_0, 15)}
SCALE = 0.02  # |w| <= 0.02 keeps every activation finite
# The language prompt and the joint carry the audio to the scores of the word pieces: their weights
# keep the spread of what goes through them (uniform, variance 1 / inputs), so the audio, not the
# previous piece, picks the next piece or the blank.
CARRYING = ("prompt.mlp.0.weight", "prompt.mlp.2.weight", "joint.enc.weight", "joint.pred.weight", "joint.out.weight")


def f16(x):
    return struct.pack("<e", x)


def pattern(kind, scale, rng):
    """Random blocks of one type, a prime number of them so that rows of a matrix never repeat."""
    blocks = 4099 if kind[1] == 1 else 1031
    data = bytearray(rng.randbytes(blocks * kind[2]))
    if kind in (F32, F16):
        fmt = "f" if kind == F32 else "e"
        return struct.pack(f"<{blocks}{fmt}", *(rng.uniform(-scale, scale) for _ in range(blocks)))
    size = kind[2]
    if kind == Q8_0:  # d, then 32 signed quants
        data[0::size], data[1::size] = (f16(scale / 127)[i : i + 1] * blocks for i in (0, 1))
    elif kind == Q4_K:  # d, dmin, 12 bytes of 6-bit scales and mins (all 8), 128 bytes of 4-bit quants
        d = scale / (8 * 7.5)
        for offset, value in ((0, f16(d)), (2, f16(7.5 * d)), (4, bytes([8] * 8) + bytes([0x88] * 4))):
            for i, byte in enumerate(value):
                data[offset + i :: size] = bytes([byte]) * blocks
    elif kind == Q6_K:  # 128 + 64 bytes of 6-bit quants, 16 signed scales (8), d
        for i in range(16):
            data[192 + i :: size] = bytes([8]) * blocks
        d = f16(scale / (8 * 32))
        data[208::size], data[209::size] = d[0:1] * blocks, d[1:2] * blocks
    return bytes(data)


def vocabulary(size):
    """SentencePiece-style pieces: <unk>, the language tags, punctuation, syllables; then <blank>."""
    syllables = [c + v for c in "bcdfghjklmnpqrstvwxz" for v in "aeiou"]
    pieces = ["<unk>"] + [f"<{locale}>" for locale in PROMPT_LOCALES] + [".", ",", "?"]
    words = (("\u2581" + a + b, a + b) for a in [""] + syllables for b in syllables)
    for pair in words:
        pieces.extend(pair)
    pieces = list(dict.fromkeys(pieces))[:size]
    assert len(pieces) == size
    types = [2] + [3] * len(PROMPT_LOCALES) + [1] * (size - 1 - len(PROMPT_LOCALES))
    return pieces + ["<blank>"], types + [3]


def string(s):
    data = s.encode()
    return struct.pack("<Q", len(data)) + data


def kv(key, value):
    if isinstance(value, bool):
        body = struct.pack("<ib", 7, value)
    elif isinstance(value, int):
        body = struct.pack("<iI", 4, value)
    elif isinstance(value, float):
        body = struct.pack("<if", 6, value)
    elif isinstance(value, str):
        body = struct.pack("<i", 8) + string(value)
    else:
        items, kind = value
        body = struct.pack("<iiQ", 9, kind, len(items))
        if kind == 8:
            body += b"".join(string(item) for item in items)
        else:
            body += struct.pack(f"<{len(items)}{'i' if kind == 5 else 'f'}", *items)
    return string(key) + body


def i32(key, value):
    return string(key) + struct.pack("<ii", 5, value)


def metadata(size, quantization):
    layers, d_model, heads, d_ff, channels, pred, joint, prompt_hidden, vocab = SIZES[size]
    pieces, types = vocabulary(vocab)
    return [
        kv("general.architecture", "parakeet"),
        kv("general.name", "Nemotron Streaming 3.5 (made-up weights)"),
        kv("general.file_type", PRESETS[quantization][3]),
        kv("general.languages", (LANGUAGES, 8)),
        kv("stt.variant", "nemotron-3.5-asr-streaming-0.6b"),
        kv("stt.capability.lang_detect", True),
        kv("stt.capability.streaming", True),
        kv("stt.parakeet.head_kind", "rnnt"),
        kv("tokenizer.ggml.model", "bpe"),
        kv("tokenizer.ggml.tokens", (pieces, 8)),
        kv("tokenizer.ggml.scores", ([-float(i) for i in range(len(pieces))], 6)),
        kv("tokenizer.ggml.token_type", (types, 5)),
        kv("tokenizer.ggml.unknown_token_id", 0),
        kv("tokenizer.ggml.blank_token_id", vocab),
        kv("stt.parakeet.encoder.n_layers", layers),
        kv("stt.parakeet.encoder.d_model", d_model),
        kv("stt.parakeet.encoder.n_heads", heads),
        kv("stt.parakeet.encoder.d_ff", d_ff),
        kv("stt.parakeet.encoder.conv_kernel", CONV_KERNEL),
        kv("stt.parakeet.encoder.subsampling_factor", SUBSAMPLING),
        kv("stt.parakeet.encoder.subsampling_channels", channels),
        kv("stt.parakeet.encoder.pos_emb_max_len", 5000),
        kv("stt.parakeet.encoder.use_bias", True),
        kv("stt.parakeet.encoder.xscaling", True),
        i32("stt.parakeet.encoder.att_context_left", ATT_CONTEXTS[0][0]),
        i32("stt.parakeet.encoder.att_context_right", ATT_CONTEXTS[0][1]),
        kv("stt.parakeet.encoder.att_context_style", "chunked_limited"),
        i32("stt.parakeet.encoder.conv_context_left", CONV_KERNEL - 1),
        i32("stt.parakeet.encoder.conv_context_right", 0),
        kv("stt.parakeet.encoder.conv_norm_type", "layer_norm"),
        kv("stt.parakeet.encoder.att_context_size_choices", ([n for pair in ATT_CONTEXTS for n in pair], 5)),
        i32("stt.parakeet.encoder.streaming.pre_encode_cache_size", 9),
        i32("stt.parakeet.encoder.streaming.drop_extra_pre_encoded", 2),
        i32("stt.parakeet.encoder.streaming.sampling_frames_first", 1),
        kv("stt.parakeet.predictor.hidden", pred),
        kv("stt.parakeet.predictor.n_layers", 2),
        kv("stt.parakeet.predictor.vocab", vocab + 1),
        kv("stt.parakeet.joint.hidden", joint),
        kv("stt.parakeet.joint.num_extra_outputs", 0),
        kv("stt.parakeet.joint.activation", "relu"),
        kv("stt.parakeet.prompt.num_prompts", NUM_PROMPTS),
        kv("stt.parakeet.prompt.hidden", prompt_hidden),
        kv("stt.parakeet.prompt.field", "target_lang"),
        kv("stt.parakeet.prompt.activation", "relu"),
        kv("stt.parakeet.prompt.dictionary.locales", (PROMPT_LOCALES + ["auto"], 8)),
        kv("stt.parakeet.prompt.dictionary.indices", (list(range(len(PROMPT_LOCALES))) + [AUTO_PROMPT], 5)),
        kv("stt.parakeet.prompt.auto_id", AUTO_PROMPT),
        kv("stt.frontend.type", "mel"),
        kv("stt.frontend.num_mels", N_MELS),
        kv("stt.frontend.sample_rate", 16000),
        kv("stt.frontend.n_fft", 512),
        kv("stt.frontend.win_length", 400),
        kv("stt.frontend.hop_length", 160),
        kv("stt.frontend.window", "hann"),
        kv("stt.frontend.normalize", "none"),
        kv("stt.frontend.dither", 1e-5),
        kv("stt.frontend.pre_emphasis", 0.97),
        kv("stt.frontend.f_min", 0.0),
        kv("stt.frontend.f_max", 8000.0),
    ]


def tensors(size, quantization):
    """(name, ggml shape, type) of every tensor, typed as transcribe-quantize's preset types them."""
    layers, d_model, heads, d_ff, channels, pred, joint, prompt_hidden, vocab = SIZES[size]
    linear_type, fallback, attention_out, _ = PRESETS[quantization]

    def linear(name, cols, rows):
        kind = attention_out if name.endswith("attn.linear_out.weight") else linear_type
        for candidate in (kind, fallback, F16):
            if cols % candidate[1] == 0:
                return (name, [cols, rows], candidate)

    frequency = N_MELS
    for _ in range(3):  # three causal stride-2 convolutions
        frequency = (frequency + 3 - 3) // 2 + 1
    out = []
    for i, shape in ((0, [3, 3, 1, channels]), (2, [3, 3, 1, channels]), (3, [1, 1, channels, channels]),
                     (5, [3, 3, 1, channels]), (6, [1, 1, channels, channels])):
        out += [(f"enc.pre_encode.conv.{i}.weight", shape, F16), (f"enc.pre_encode.conv.{i}.bias", [channels], F32)]
    out += [linear("enc.pre_encode.out.weight", channels * frequency, d_model),
            ("enc.pre_encode.out.bias", [d_model], F32)]
    vector = lambda name, n=d_model: (name, [n], F32)
    for i in range(layers):
        b = f"enc.blocks.{i}."
        for norm in ("norm_ff1", "norm_attn", "norm_conv", "norm_ff2", "norm_out", "conv.bn"):
            out += [vector(b + norm + ".weight"), vector(b + norm + ".bias")]
        for ff in ("ff1", "ff2"):
            out += [linear(b + ff + ".linear1.weight", d_model, d_ff), vector(b + ff + ".linear1.bias", d_ff),
                    linear(b + ff + ".linear2.weight", d_ff, d_model), vector(b + ff + ".linear2.bias")]
        for part in ("q", "k", "v", "out"):
            out += [linear(b + f"attn.linear_{part}.weight", d_model, d_model), vector(b + f"attn.linear_{part}.bias")]
        out += [linear(b + "attn.linear_pos.weight", d_model, d_model),
                (b + "attn.pos_bias_u", [d_model // heads, heads], F32),
                (b + "attn.pos_bias_v", [d_model // heads, heads], F32),
                (b + "conv.pointwise1.weight", [1, d_model, 2 * d_model], F16),
                vector(b + "conv.pointwise1.bias", 2 * d_model),
                (b + "conv.depthwise.weight", [CONV_KERNEL, 1, d_model], F32), vector(b + "conv.depthwise.bias"),
                (b + "conv.pointwise2.weight", [1, d_model, d_model], F16), vector(b + "conv.pointwise2.bias")]
    out.append(linear("pred.embed.weight", pred, vocab + 1))
    for i in range(2):
        out += [linear(f"pred.lstm.{i}.Wx", pred, 4 * pred), linear(f"pred.lstm.{i}.Wh", pred, 4 * pred),
                vector(f"pred.lstm.{i}.bias", 4 * pred)]
    out += [linear("joint.enc.weight", d_model, joint), vector("joint.enc.bias", joint),
            linear("joint.pred.weight", pred, joint), vector("joint.pred.bias", joint),
            linear("joint.out.weight", joint, vocab + 1), vector("joint.out.bias", vocab + 1)]
    out += [linear("prompt.mlp.0.weight", d_model + NUM_PROMPTS, prompt_hidden), vector("prompt.mlp.0.bias", prompt_hidden),
            linear("prompt.mlp.2.weight", prompt_hidden, d_model), vector("prompt.mlp.2.bias")]
    return out


def payload(name, shape, kind, patterns, blank_bias):
    count = math.prod(shape)
    if (".norm_" in name or ".bn." in name) and name.endswith(".weight"):
        return struct.pack(f"<{count}f", *([1.0] * count))
    if name == "joint.out.bias":  # the last output is the blank
        return struct.pack(f"<{count}f", *([0.0] * (count - 1) + [blank_bias]))
    if name == "enc.pre_encode.conv.0.weight":
        # Kernels that sum to zero see the changes of the log-mel spectrum, not its large constant
        # level, which would otherwise outweigh the speech all the way to the joint.
        rng, kernels = random.Random(name), []
        for _ in range(count // 9):
            kernel = [rng.uniform(-0.3, 0.3) for _ in range(8)]
            kernels += kernel + [-sum(kernel)]
        return struct.pack(f"<{count}e", *kernels)
    if name.endswith(".bias"):  # the same offsets on every frame would drown what the audio changes
        return bytes(4 * count)
    size = count // kind[1] * kind[2]
    scale = math.sqrt(3 / shape[0]) if name in CARRYING else SCALE
    if (kind, scale) not in patterns:
        patterns[kind, scale] = pattern(kind, scale, random.Random(name))
    block = patterns[kind, scale]
    return block * (size // len(block)) + block[: size % len(block)]


def pad(n):
    return (n + 31) // 32 * 32


def main():
    size, quantization, output = sys.argv[1:4]
    rng = random.Random(20260611)
    patterns = {(kind, SCALE): pattern(kind, SCALE, rng) for kind in (F32, F16, Q8_0, Q4_K, Q6_K)}
    described = tensors(size, quantization)
    header = metadata(size, quantization)
    infos, offset = [], 0
    for name, shape, kind in described:
        nbytes = math.prod(shape) // kind[1] * kind[2]
        infos.append(string(name) + struct.pack(f"<I{len(shape)}qiQ", len(shape), *shape, kind[0], offset))
        offset = pad(offset + nbytes)
    partial = output + ".part"
    with open(partial, "wb") as out:
        out.write(b"GGUF" + struct.pack("<IQQ", 3, len(described), len(header)))
        out.write(b"".join(header) + b"".join(infos))
        out.write(b"\0" * (pad(out.tell()) - out.tell()))
        for name, shape, kind in described:
            data = payload(name, shape, kind, patterns, BLANK_BIAS[size])
            out.write(data + b"\0" * (pad(len(data)) - len(data)))
    os.replace(partial, output)


if __name__ == "__main__":
    main()
