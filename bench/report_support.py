"""What the reports have in common."""

import pathlib
import platform


def machine():
    """The processor, how many, and the system, in a line."""
    model = platform.processor() or platform.machine()
    cores = 0
    for line in pathlib.Path('/proc/cpuinfo').read_text().splitlines():
        if line.startswith('model name'):
            model = line.split(':', 1)[1].strip()
            cores += 1
    return f'{model}, {cores} cores, Linux {platform.release()}, {platform.machine()}'


def plot(draw, size, columns, path):
    """Has `draw` draw on a figure of this size, in inches, with so many axes side by side."""
    import matplotlib
    matplotlib.use('Agg')
    from matplotlib import pyplot

    figure, axes = pyplot.subplots(1, columns, figsize=size)
    draw(axes)
    figure.tight_layout()
    figure.savefig(path, dpi=90)
