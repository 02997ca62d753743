"""A reader of the OpenMetrics text format that refuses what its rules forbid."""

import re

_SAMPLE = re.compile(r'([a-zA-Z_:][\w:]*)(?:\{((?:[a-zA-Z_]\w*="(?:[^"\\\n]|\\[\\"n])*",?)*)\})? (\S+)$')
_LABEL = re.compile(r'([a-zA-Z_]\w*)="((?:[^"\\\n]|\\[\\"n])*)"')
_SUFFIXES = {"counter": ("_total",), "gauge": ("",), "histogram": ("_bucket", "_count", "_sum")}


def read_metrics(page):
    """The samples: {(name, (label, value), ...): number}."""
    if not page.endswith("\n# EOF\n"):
        raise AssertionError("the page has no end")
    families, samples, family, kind = set(), {}, "", ""
    for line in page[: -len("# EOF\n")].splitlines():
        if line.startswith("# HELP "):
            family = line.split()[2]
            if family in families:
                raise AssertionError(f"a second family {family}")
            families.add(family)
        elif line.startswith("# TYPE "):
            name, kind = line.split()[2:]
            if name != family or kind not in _SUFFIXES:
                raise AssertionError(line)
        else:
            _add_sample(samples, family, kind, line)
    _check_histograms(samples)
    return samples


def _add_sample(samples, family, kind, line):
    match = _SAMPLE.match(line)
    if not match or match[1] not in [family + suffix for suffix in _SUFFIXES[kind]]:
        raise AssertionError(f"of {family}: {line}")
    key = (match[1], *_LABEL.findall(match[2] or ""))
    if key in samples:
        raise AssertionError(f"twice: {line}")
    samples[key] = float(match[3])


def _check_histograms(samples):
    buckets = {}
    for key, value in samples.items():
        if key[0].endswith("_bucket"):
            labels = dict(key[1:])
            bound = labels.pop("le")
            if bound != "+Inf" and str(float(bound)) != bound:
                raise AssertionError(f"not canonical: {bound}")
            buckets.setdefault((key[0][: -len("_bucket")], *labels.items()), []).append((float(bound), value))
    for key, found in buckets.items():
        counts = [count for _, count in found]
        if found != sorted(found) or counts != sorted(counts) or counts[-1] != samples[(key[0] + "_count", *key[1:])]:
            raise AssertionError(f"{key}: {found}")
