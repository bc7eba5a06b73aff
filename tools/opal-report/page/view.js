// What all plots share: the window of time, zoom and pan, the crosshair and the tooltip; and how one plot
// stands in the page.

const kMargin = { top: 6, right: 88, bottom: 22, left: 72 };
let frameCount = 0;

class Tooltip {
  constructor() {
    this.box = d3.select("body").append("div").attr("class", "tooltip").attr("role", "status").attr("aria-live", "off");
  }

  show([title, rows], event) {
    this.box.selectAll("*").remove();
    this.box.append("div").attr("class", "tooltip-title").text(title);
    const list = this.box.append("dl");
    for (const [name, value] of rows) {
      if (name) list.append("dt").text(name);
      list.append("dd").classed("wide", !name).text(known(value) ? value : "–");
    }
    const box = this.box.node().getBoundingClientRect();
    const left = event.clientX + 16 + box.width < window.innerWidth ? event.clientX + 16 : event.clientX - 16 - box.width;
    const top = Math.min(event.clientY + 14, window.innerHeight - box.height - 8);
    this.box.style("left", `${Math.max(4, left)}px`).style("top", `${Math.max(4, top)}px`).classed("shown", true);
  }

  hide() {
    this.box.classed("shown", false);
  }
}

// The window of time, [from, to] in seconds, within [0, duration].
class TimeWindow {
  constructor(duration, changed) {
    this.duration = Math.max(duration, 0.001);
    this.changed = changed;
    this.whole();
  }

  get shown() {
    return this.to - this.from;
  }

  get isWhole() {
    return this.from <= 0 && this.to >= this.duration;
  }

  set(from, to) {
    const least = Math.min(0.02, this.duration);
    const length = Math.min(Math.max(to - from, least), this.duration);
    this.from = Math.min(Math.max((from + to - length) / 2, 0), this.duration - length);
    this.to = this.from + length;
    this.changed();
  }

  whole() {
    this.from = 0;
    this.to = this.duration;
    this.changed();
  }

  zoom(factor, around = (this.from + this.to) / 2) {
    const from = around - (around - this.from) / factor;
    this.set(from, from + this.shown / factor);
  }

  pan(share) {
    const by = Math.min(Math.max(share * this.shown, -this.from), this.duration - this.to);
    this.set(this.from + by, this.to + by);
  }

  // A session that runs grows: who saw all goes on to see all.
  grow(duration) {
    const whole = this.isWhole;
    this.duration = Math.max(duration, this.duration);
    if (whole) this.to = this.duration;
  }
}

// One plot of one session.
class Frame {
  constructor(parent, plot, session, sessions, page) {
    Object.assign(this, { plot, session, sessions, page });
    const figure = parent.append("figure").attr("class", `plot plot-${plot.id}`);
    const caption = figure.append("figcaption");
    caption.append("span").attr("class", "plot-title").text(plot.unit ? `${plot.title}, ${plot.unit}` : plot.title);
    if (plot.hint) caption.append("span").attr("class", "hint").text(plot.hint);
    this.svg = figure.append("svg").attr("role", "img");
    this.clip = `clip-${++frameCount}`;
    this.clipRect = this.svg.append("clipPath").attr("id", this.clip).append("rect");
    this.back = this.svg.append("g").attr("transform", `translate(${kMargin.left},${kMargin.top})`);
    this.hit = this.svg.append("rect").attr("class", "hit").attr("x", kMargin.left).attr("y", kMargin.top);
    this.cross = this.svg.append("line").attr("class", "crosshair");
    this.listen();
  }

  listen() {
    this.hit
      .on("mousemove", () => this.onMove())
      .on("mouseleave", () => this.page.leave())
      .on("wheel", () => this.onWheel(), { passive: false })
      .on("dblclick", () => this.page.window.zoom(2, this.timeOf(d3.event)))
      .call(d3.drag().on("start", () => this.page.leave())
        .on("drag", () => { this.page.leave(); this.page.window.pan(-d3.event.dx / this.width); }));
  }

  timeOf(event) {
    return this.x.invert(event.clientX - this.svg.node().getBoundingClientRect().left - kMargin.left);
  }

  onMove() {
    const event = d3.event;
    const time = this.timeOf(event);
    const y = event.clientY - this.svg.node().getBoundingClientRect().top - kMargin.top;
    this.page.cross(time);
    const told = time <= this.session.duration ? this.plot.hover(this, time, y) : null;
    if (told) this.page.tooltip.show(told, event);
    else this.page.tooltip.hide();
  }

  // A wheel that cannot zoom further scrolls the page, as does one with Shift or sideways.
  onWheel() {
    const event = d3.event;
    if (event.shiftKey || Math.abs(event.deltaX) > Math.abs(event.deltaY)) {
      if (this.page.window.isWhole) return;
      event.preventDefault();
      this.page.window.pan((event.deltaX || event.deltaY) / 600);
      return;
    }
    if (event.deltaY > 0 && this.page.window.isWhole) return;
    event.preventDefault();
    this.page.tooltip.hide();
    const lines = event.deltaMode === 1 ? 20 : 1;
    this.page.window.zoom(Math.pow(2, -Math.min(Math.max(event.deltaY * lines, -400), 400) / 300), this.timeOf(event));
  }

  nearest(rows, time, column, pixels) {
    let best = null, least = pixels;
    for (const row of rows) {
      const off = Math.abs(this.x(row[column]) - this.x(time));
      if (off <= least) [best, least] = [row, off];
    }
    return best;
  }

  label(text, value, kind) {
    if (known(value)) this.labels.push({ text, kind, y: this.y(Math.min(value, this.y.domain()[1])) });
  }

  note(text, y) {
    this.labels.push({ text, kind: "note", y });
  }

  draw(outerWidth) {
    const { plot } = this;
    this.lanes = plot.lanes && plot.lanes(this.sessions);
    this.width = Math.max(40, outerWidth - kMargin.left - kMargin.right);
    this.height = this.lanes ? this.lanes.length * kLaneHeight : plot.height;
    this.x = d3.scaleLinear().domain([this.page.window.from, this.page.window.to]).range([0, this.width]);
    this.labels = [];
    this.svg.attr("width", outerWidth).attr("height", this.height + kMargin.top + kMargin.bottom)
      .attr("aria-label", `${plot.title}: ${plot.describe(this.session)}`);
    this.clipRect.attr("width", this.width).attr("height", this.height + 1).attr("y", -1);
    this.hit.attr("width", this.width).attr("height", this.height);
    this.cross.attr("y1", kMargin.top).attr("y2", kMargin.top + this.height);
    this.back.selectAll("*").remove();
    this.drawBands();
    if (!this.lanes) this.drawValueAxis(plot.domain(this.sessions, this.page.window));
    this.drawTimeAxis();
    this.g = this.back.append("g").attr("clip-path", `url(#${this.clip})`);
    if (this.lanes) this.drawLanes();
    plot.draw(this);
    this.drawLabels();
  }

  drawBands() {
    const bands = this.session.phases.filter((phase) => ["stalled", "starting", "paused"].includes(phase.phase)
      && inWindow(this, phase.start_s, phase.end_s));
    this.back.append("g").attr("clip-path", `url(#${this.clip})`).selectAll("rect").data(bands).join("rect")
      .attr("class", (phase) => (phase.phase === "stalled" ? "band stall" : `band ${phase.phase}`))
      .attr("x", (phase) => this.x(phase.start_s)).attr("height", this.height)
      .attr("width", (phase) => Math.max(phase.phase === "stalled" ? 2 : 0, this.x(phase.end_s) - this.x(phase.start_s)));
  }

  drawValueAxis(domain) {
    this.y = d3.scaleLinear().domain(domain).range([this.height, 0]);
    const axis = this.back.append("g").attr("class", "axis");
    for (const { value, text } of this.plot.ticks(this.session, domain)) {
      axis.append("line").attr("class", "grid").attr("x2", this.width).attr("y1", this.y(value)).attr("y2", this.y(value));
      axis.append("text").attr("class", "tick").attr("x", -8).attr("y", this.y(value)).attr("dy", "0.32em").attr("text-anchor", "end").text(text);
    }
  }

  drawLanes() {
    this.lanes.forEach((lane, i) => {
      this.back.append("text").attr("class", "tick").attr("x", -8).attr("y", (i + 0.5) * kLaneHeight).attr("dy", "0.32em")
        .attr("text-anchor", "end").text(kLaneTitles[lane] || "");
      this.back.append("line").attr("class", "grid").attr("x2", this.width).attr("y1", (i + 1) * kLaneHeight).attr("y2", (i + 1) * kLaneHeight);
    });
  }

  drawTimeAxis() {
    const { step, values } = timeTicks(this.x, Math.max(2, this.width / 85));
    const axis = this.back.append("g").attr("class", "axis time");
    axis.append("line").attr("class", "base").attr("x2", this.width).attr("y1", this.height).attr("y2", this.height);
    for (const value of values) {
      axis.append("line").attr("class", "grid").attr("x1", this.x(value)).attr("x2", this.x(value)).attr("y2", this.height);
      axis.append("text").attr("class", "tick").attr("x", this.x(value)).attr("y", this.height + 16).attr("text-anchor", "middle").text(asClock(value, step));
    }
  }

  // Names stand at the ends of their lines, none on another.
  drawLabels() {
    const gap = 13;
    this.labels.sort((a, b) => a.y - b.y);
    this.labels.forEach((label, i) => { label.y = Math.max(label.y, i ? this.labels[i - 1].y + gap : 4); });
    let below = this.height + gap;
    for (const label of this.labels.slice().reverse()) below = label.y = Math.min(label.y, below - gap);
    this.back.selectAll(".label").data(this.labels).join("text").attr("class", (label) => `label ${label.kind}`)
      .attr("x", this.width + 7).attr("y", (label) => label.y).attr("dy", "0.32em").text((label) => label.text);
  }

  drawCross(time) {
    const inside = time !== null && time >= this.page.window.from && time <= this.page.window.to;
    this.cross.classed("shown", inside);
    if (inside) this.cross.attr("x1", kMargin.left + this.x(time)).attr("x2", kMargin.left + this.x(time));
  }
}
