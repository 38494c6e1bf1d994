"""The report's plots, drawn with matplotlib as inline SVG.

SVG keeps the page self-contained and small (a few kB a plot, where a bundled
interactive plotting script would add megabytes), and every mark stays an
element of the page: each data series carries an id of the form
<prefix>-<plot>-<series>, so a browser (or a test) can find and count the points.
"""

import io

import matplotlib

matplotlib.use("Agg")
import matplotlib.pyplot as plt  # noqa: E402

plt.rcParams.update({"svg.fonttype": "none", "svg.hashsalt": "ksieve-report",
                     "font.size": 9, "figure.dpi": 72})

SIDES = (("declared", "declared precursors", "#888888"), ("ksieve", "kSieve precursors", "#1f6fb4"))


def to_svg(figure):
    buffer = io.StringIO()
    figure.savefig(buffer, format="svg", metadata={"Date": None})
    plt.close(figure)
    text = buffer.getvalue()
    return text[text.index("<svg"):]


def new_axes(title, xlabel, ylabel):
    figure, axes = plt.subplots(figsize=(4.2, 2.8))
    axes.set_title(title)
    axes.set_xlabel(xlabel)
    axes.set_ylabel(ylabel)
    return figure, axes


def sorted_counts(counts):
    keys = sorted(counts, key=int)
    return [int(k) for k in keys], [counts[k] for k in keys]


def label_bars(bars, prefix):
    for index, bar in enumerate(bars):
        bar.set_gid(f"{prefix}-{index}")


def precursors_per_scan(prefix, counts):
    figure, axes = new_axes("Precursors per MS2 scan", "precursors in the scan", "MS2 scans")
    xs, ys = sorted_counts(counts)
    label_bars(axes.bar(xs, ys, color=SIDES[1][2]), f"{prefix}-precursors-bar")
    axes.set_xticks(xs)
    figure.tight_layout()
    return to_svg(figure)


def charge_states(prefix, charges):
    figure, axes = new_axes("Charge states", "charge", "precursors")
    everything = sorted({int(z) for side in charges.values() for z in side})
    for offset, (side, label, colour) in zip((-0.2, 0.2), SIDES):
        xs, ys = sorted_counts(charges[side])
        bars = axes.bar([x + offset for x in xs], ys, width=0.4, label=label, color=colour)
        label_bars(bars, f"{prefix}-charges-{side}-bar")
    axes.set_xticks(everything)
    axes.legend(frameon=False)
    figure.tight_layout()
    return to_svg(figure)


def mass_shifts(prefix, histogram):
    figure, axes = new_axes("Mass shift against declared", "kSieve minus declared mass (Da)",
                            "MS2 scans")
    # Scans that kept their precursor outnumber the corrected ones by far: a log
    # scale keeps the isotope steps at +-1.003 Da visible.
    centres = [float(c) for c in histogram["bins"]]
    bars = axes.bar(centres, list(histogram["bins"].values()), width=0.08, color=SIDES[1][2])
    label_bars(bars, f"{prefix}-shifts-bar")
    axes.set_yscale("log")
    axes.set_xlim(-4.7, 4.7)
    if histogram["off_scale"]:
        axes.set_title(f"Mass shift against declared ({histogram['off_scale']} off scale)")
    figure.tight_layout()
    return to_svg(figure)


def psms_against_q(prefix, sides, threshold):
    figure, axes = new_axes("PSMs against q-value", "q-value", "target PSMs at or below")
    for side, label, colour in SIDES:
        curve = sides[side]["q_curve"]
        (line,) = axes.plot([q for q, _ in curve], [n for _, n in curve], marker="o",
                            markersize=1.5, drawstyle="steps-post", label=label, color=colour)
        line.set_gid(f"{prefix}-qvalue-{side}-points")
    axes.axvline(threshold, color="#cc3333", linewidth=0.8, linestyle="--")
    axes.legend(frameon=False, loc="lower right")
    figure.tight_layout()
    return to_svg(figure)


def score_distribution(prefix, label, histogram):
    """Target and decoy scores of one side after rescoring, primary and secondary PSMs apart."""
    figure, axes = new_axes(f"Scores used for FDR, {label}", "score (higher is better)", "PSMs")
    edges = histogram["edges"]
    styles = (("primary", "target", "#1f6fb4", "-"), ("primary", "decoy", "#cc3333", "-"),
              ("secondary", "target", "#1f6fb4", ":"), ("secondary", "decoy", "#cc3333", ":"))
    for group, kind, colour, line_style in styles:
        counts = histogram[group][kind]
        if not any(counts):
            continue
        (line,) = axes.plot(edges, counts + counts[-1:], drawstyle="steps-post", color=colour,
                            linestyle=line_style, label=f"{group} {kind}s")
        line.set_gid(f"{prefix}-{group}-{kind}")
    axes.legend(frameon=False)
    figure.tight_layout()
    return to_svg(figure)


SPARK_WIDTH, SPARK_HEIGHT, SPARK_STEP = 120, 28, 5


def sparkline(prefix, sides, threshold):
    """A sparkline of target PSMs against q-value for both sides, written by hand: a few
    hundred bytes where a plotted figure takes tens of kB, so an overview of hundreds of runs
    stays small. Every fifth point of the q grid; the FDR threshold as a tick."""
    curves = {side: sides[side]["q_curve"][::SPARK_STEP] for side, _, _ in SIDES}
    top = max([n for curve in curves.values() for _, n in curve] + [1])
    last = max(q for curve in curves.values() for q, _ in curve) or 1.0

    def x(q):
        return round(q / last * (SPARK_WIDTH - 2) + 1, 1)

    def y(n):
        return round(SPARK_HEIGHT - 1 - n / top * (SPARK_HEIGHT - 2), 1)

    lines = "".join(
        f'<polyline id="{prefix}-{side}" fill="none" stroke="{colour}" stroke-width="1.2" '
        f'points="{" ".join(f"{x(q)},{y(n)}" for q, n in curves[side])}"/>'
        for side, _, colour in SIDES)
    tick = x(min(threshold, last))
    return (f'<svg xmlns="http://www.w3.org/2000/svg" width="{SPARK_WIDTH}" '
            f'height="{SPARK_HEIGHT}" role="img"><title>target PSMs against q-value, declared '
            f'(grey) and kSieve (blue), up to {top}</title>'
            f'<line x1="{tick}" y1="0" x2="{tick}" y2="{SPARK_HEIGHT}" stroke="#cc3333" '
            f'stroke-width="0.6"/>{lines}</svg>')
