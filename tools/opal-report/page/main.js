// The page: a head, a bar that stays in sight, and for each session its figures, plots and tables.

const kPollMs = 500;
const kPatience = 6; // polls in vain until a live session counts as over

function headlineOf(session) {
  const line = session.info.headline;
  const share = line.bytes_fetched ? `${((100 * line.bytes_discarded) / line.bytes_fetched).toFixed(1)}\u202f%` : "";
  return [
    ["startup", "Start-up", asSeconds(line.startup_s), ""],
    ["stalls", "Stalls", String(line.stalls), line.stalls ? `${asSeconds(line.stalled_s)} in all` : ""],
    ["bitrate", "Mean bit-rate", asRate(line.mean_bitrate_bps), "of video fetched"],
    ["switches", "Switches", String(line.switches), line.switches ? `${line.switches_up} up, ${line.switches_down} down` : ""],
    ["fetched", "Fetched", asBytes(line.bytes_fetched), `${line.requests} requests`],
    ["discarded", "Discarded", asBytes(line.bytes_discarded), share],
    ["played", "Played", asClock(line.played_s, 0.1), `of ${asClock(line.duration_s, 0.1)}`],
  ];
}

class Page {
  constructor(data) {
    this.data = data;
    this.sessions = data.sessions.map((session) => new Session(session));
    this.tooltip = new Tooltip();
    this.window = new TimeWindow(this.longest(), () => this.later());
    this.root = d3.select("#report");
    this.root.selectAll("*").remove();
    this.build();
    this.tablesShown = location.hash === "#tables";
    this.showTables(this.tablesShown);
    new ResizeObserver(() => this.later()).observe(this.root.node());
    this.draw();
  }

  longest() {
    return d3.max(this.sessions, (session) => session.duration) || 0.001;
  }

  build() {
    this.root.append("h1").text(this.sessions.length > 1 ? "Two sessions" : "Session report");
    this.buildBar();
    this.columns = this.root.append("div").attr("class", `sessions count-${this.sessions.length}`);
    this.parts = this.sessions.map((session, i) => this.buildSession(session, i));
    this.root.append("footer").text("Plots drawn with D3 (d3js.org), \u00a9 2010\u20132017 Mike Bostock, BSD licence; its text stands in this page's source.");
  }

  buildBar() {
    const bar = this.root.append("div").attr("class", "bar");
    this.strip = bar.append("svg").attr("class", "strip").attr("aria-hidden", "true");
    this.strip.append("title").text("Drag to choose a part of the time");
    const tools = bar.append("div").attr("class", "tools");
    this.range = tools.append("output").attr("class", "range").attr("aria-label", "Time shown");
    const button = (text, label, action) => tools.append("button").attr("type", "button").attr("aria-label", label)
      .attr("title", label).text(text).on("click", action);
    button("\u2212", "Zoom out", () => this.window.zoom(1 / 2));
    button("+", "Zoom in", () => this.window.zoom(2));
    this.reset = button("All", "Show all of the time", () => this.window.whole());
    tools.append("span").attr("class", "gap");
    this.toggle = button("Tables", "Show tables instead of plots", () => this.showTables(!this.tablesShown));
    button("CSV", "Download all rows as CSV", () => download("session.csv", "text/csv", toCsv(this.sessions)));
    button("JSON", "Download all rows as JSON", () => download("session.json", "application/json", toJson(this.sessions)));
    this.brush = d3.brushX().on("start brush end", () => this.onBrush());
    this.stripBack = this.strip.append("g");
    this.brushGroup = this.strip.append("g");
  }

  buildSession(session, i) {
    const column = this.columns.append("article").attr("class", "session").attr("aria-label", `Session ${i + 1}`);
    const head = column.append("header");
    const title = head.append("h2");
    const source = head.append("p").attr("class", "source");
    const headline = head.append("dl").attr("class", "headline");
    const warning = head.append("p").attr("class", "warning").attr("role", "status");
    const plots = column.append("div").attr("class", "plots").attr("tabindex", 0).attr("role", "group")
      .attr("aria-label", "Plots on one time axis. Arrow keys move, plus and minus zoom, 0 shows all. The tables hold the same rows.")
      .on("keydown", () => this.onKey());
    const tables = column.append("div").attr("class", "tables");
    const details = column.append("details");
    details.append("summary").text("Settings in force");
    const settings = details.append("pre");
    return { session, title, source, headline, warning, plots, tables, details, settings, frames: [], views: [] };
  }

  onKey() {
    const actions = { ArrowLeft: () => this.window.pan(-0.2), ArrowRight: () => this.window.pan(0.2), "+": () => this.window.zoom(2),
      "=": () => this.window.zoom(2), "-": () => this.window.zoom(1 / 2), "0": () => this.window.whole(), Home: () => this.window.pan(-1e9), End: () => this.window.pan(1e9) };
    const { key, ctrlKey, metaKey, altKey } = d3.event;
    if (!actions[key] || ctrlKey || metaKey || altKey) return;
    d3.event.preventDefault();
    actions[key]();
  }

  showTables(shown) {
    this.tablesShown = shown;
    this.root.classed("as-tables", shown);
    this.toggle.text(shown ? "Plots" : "Tables").attr("aria-label", shown ? "Show plots instead of tables" : "Show tables instead of plots");
    for (const part of this.parts) {
      part.plots.attr("hidden", shown ? "" : null);
      part.tables.attr("hidden", shown ? null : "");
      if (shown && !part.views.length) part.views = [...part.session.tables.keys()].map((name) => new TableView(part.tables, part.session, name));
    }
    this.later();
  }

  later() {
    if (this.waiting || !this.parts) return;
    this.waiting = true;
    requestAnimationFrame(() => { this.waiting = false; this.draw(); });
  }

  draw() {
    this.drawStrip();
    this.range.text(`${asClock(this.window.from, this.window.shown / 20)} \u2013 ${asClock(this.window.to, this.window.shown / 20)}`);
    this.reset.property("disabled", this.window.isWhole);
    for (const part of this.parts) {
      this.drawHead(part);
      this.drawHeadline(part);
      if (this.tablesShown) part.views.forEach((view) => view.draw());
      else this.drawPlots(part);
    }
  }

  drawHead({ session: { info }, title, source, details, settings }) {
    const begun = info.start_us > 1e15 ? `${new Date(info.start_us / 1000).toISOString().replace("T", " ").slice(0, 19)} UTC` : null;
    const program = [info.tool, info.library].filter(Boolean).join(" ");
    title.text(info.file || info.source || "Session");
    source.text([info.file ? info.source : null, info.simulated ? "simulated" : null, program, begun].filter(Boolean).join(" \u00b7 "));
    details.attr("hidden", info.settings ? null : "");
    settings.text(info.settings);
  }

  drawHeadline({ session, headline, warning }) {
    const figure = headline.selectAll("div").data(headlineOf(session)).join((enter) => {
      const box = enter.append("div");
      box.append("dt");
      box.append("dd").attr("class", "value");
      box.append("dd").attr("class", "more");
      return box;
    });
    figure.attr("class", ([id]) => `figure figure-${id}`);
    figure.select("dt").text(([, name]) => name);
    figure.select(".value").text(([, , value]) => value);
    figure.select(".more").text(([, , , more]) => more);
    const { events_lost: lost, rows_left_out: left } = session.info.headline;
    warning.text([lost ? `${lost} events of this session were lost before they could be recorded.` : "",
      left ? `${left} rows are left out for want of room.` : ""].join(" ").trim());
  }

  // A plot appears once any session has something for it, so that both columns stay aligned.
  drawPlots(part) {
    const width = Math.floor(part.plots.node().getBoundingClientRect().width);
    for (const plot of kPlots) {
      if (!part.frames.some((frame) => frame.plot === plot) && this.sessions.some((session) => plot.present(session))) {
        part.frames.push(new Frame(part.plots, plot, part.session, this.sessions, this));
        part.frames.sort((a, b) => kPlots.indexOf(a.plot) - kPlots.indexOf(b.plot));
        part.frames.forEach((frame) => part.plots.node().appendChild(frame.svg.node().parentNode));
      }
    }
    part.frames.forEach((frame) => frame.draw(width));
  }

  drawStrip() {
    const width = Math.floor(this.strip.node().getBoundingClientRect().width);
    const row = 12, top = 3;
    const height = this.sessions.length * (row + 3) + 3;
    this.stripX = d3.scaleLinear().domain([0, this.window.duration]).range([kMargin.left, Math.max(kMargin.left + 40, width - kMargin.right)]);
    this.strip.attr("width", width).attr("height", height);
    const phases = this.sessions.flatMap((session, i) => session.phases.map((phase) => ({ ...phase, i })));
    this.stripBack.selectAll("rect").data(phases).join("rect")
      .attr("class", (phase) => `ribbon ${phase.phase.replace(" ", "-")}`).attr("height", row)
      .attr("x", (phase) => this.stripX(phase.start_s)).attr("y", (phase) => top + phase.i * (row + 3))
      .attr("width", (phase) => Math.max(1, this.stripX(phase.end_s) - this.stripX(phase.start_s)));
    this.brush.extent([[this.stripX.range()[0], 0], [this.stripX.range()[1], height]]);
    if (this.brushing) return; // what the hand holds stays where it is
    this.drawing = true;
    this.brushGroup.call(this.brush).call(this.brush.move, this.window.isWhole ? null : [this.stripX(this.window.from), this.stripX(this.window.to)]);
    this.drawing = false;
  }

  onBrush() {
    if (this.drawing) return;
    this.brushing = d3.event.type !== "end";
    if (d3.event.selection) this.window.set(...d3.event.selection.map(this.stripX.invert));
    else if (!this.brushing) this.window.whole();
  }

  cross(time) {
    this.parts.forEach((part) => part.frames.forEach((frame) => frame.drawCross(time)));
  }

  leave() {
    this.cross(null);
    this.tooltip.hide();
  }

  // Asks for the rows since the last time, as long as the session runs.
  async poll() {
    const mark = this.root.select("h1").append("span").attr("class", "live").text("live");
    for (let failures = 0; failures < kPatience;) {
      try {
        const [session] = this.sessions;
        const counts = [...session.tables.values()].map((table) => table.rows.length).join(",");
        const reply = await fetch(`rows.json?from=${counts}`, { cache: "no-store" });
        if (!reply.ok) throw new Error(String(reply.status));
        const news = await reply.json();
        session.append(news);
        this.window.grow(this.longest());
        this.draw();
        failures = 0;
        if (news.over) break;
        if (news.more) continue;
      } catch (error) {
        ++failures;
      }
      await new Promise((resolve) => setTimeout(resolve, kPollMs));
    }
    mark.text("ended").classed("over", true);
  }
}

const page = new Page(JSON.parse(document.getElementById("data").textContent));
if (page.data.live) page.poll();
