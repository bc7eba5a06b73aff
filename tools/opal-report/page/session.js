// A session's rows, as objects by the names of their columns, and the series that plots draw.

class Session {
  constructor(json) {
    this.info = json;
    this.tables = new Map();
    for (const table of json.tables) {
      this.tables.set(table.name, { ...table, rows: table.rows.map((row) => Session.object(table.columns, row)) });
    }
    this.prepare();
  }

  static object(columns, row) {
    const object = {};
    columns.forEach((column, i) => { object[column] = row[i]; });
    return object;
  }

  // Rows that came later, of a session that still runs.
  append(json) {
    const tables = json.tables;
    this.info = { ...this.info, ...json, tables: undefined };
    for (const { name, columns, rows } of tables) {
      for (const row of rows) this.rows(name).push(Session.object(columns, row));
    }
    this.prepare();
  }

  rows(name) {
    return this.tables.get(name).rows;
  }

  get duration() {
    return this.info.headline.duration_s;
  }

  prepare() {
    const buffers = this.rows("buffers");
    const series = (column) => buffers.map((row) => [row.time_s, row[column]]);
    this.series = {};
    for (const column of ["video_s", "audio_s", "underflow_s", "required_video_s", "required_audio_s", "max_video_s",
      "bandwidth_bps", "position_s"]) {
      this.series[column] = series(column);
    }
    this.series.link = this.extended(this.rows("link").map((row) => [row.time_s, row.bps]));
    this.series.levels = this.levelSteps();
    this.series.shown = this.rows("player").map((row) => [row.time_s, row.shown_per_s]);
    this.phases = this.rows("phases").slice();
    if (this.info.phase) this.phases.push({ ...this.info.phase, end_s: this.duration });
    this.stalls = this.phases.filter((phase) => phase.phase === "stalled");
    this.lanes = new Set(this.rows("requests").map((row) => row.stream));
    this.bitrates = this.rows("levels").map((row) => row.bitrate_bps);
  }

  // The last value holds until the session's end.
  extended(points) {
    return points.length ? [...points, [Math.max(this.duration, points[points.length - 1][0]), points[points.length - 1][1]]] : points;
  }

  // A return from trick play says too at which level it plays.
  levelSteps() {
    const points = [];
    for (const { state, time_s, from, to } of this.rows("states")) {
      if (state === "level" && !points.length && known(from)) points.push([0, from]);
      if (known(to) && (state === "level" || state === "playing" || (state === "opened" && !points.length))) points.push([time_s, to]);
    }
    return this.extended(points);
  }

  // The last row of a table that begins at the time or before.
  at(name, time, column = "time_s") {
    const rows = this.rows(name);
    return rows[d3.bisector((row) => row[column]).right(rows, time) - 1];
  }

  phaseAt(time) {
    return this.phases.find((phase) => phase.start_s <= time && time <= phase.end_s);
  }
}

// Of points [time, value] those that so many pixels can show: of each pixel's the first, the least, the
// most and the last; and one on either side of the window.
function thin(points, from, to, pixels) {
  const by = d3.bisector((point) => point[0]);
  const first = Math.max(0, by.left(points, from) - 1);
  const last = Math.min(points.length, by.right(points, to) + 1);
  if (last - first <= 4 * pixels) return points.slice(first, last);
  const kept = [];
  const bucketOf = (i) => Math.floor(((points[i][0] - from) / (to - from)) * pixels);
  for (let i = first, next; i < last; i = next) {
    const bucket = bucketOf(i);
    let least = i, most = i;
    for (next = i; next < last && bucketOf(next) === bucket; ++next) {
      if (points[next][1] < points[least][1]) least = next;
      if (points[next][1] > points[most][1]) most = next;
    }
    kept.push(i);
    for (const kind of [Math.min(least, most), Math.max(least, most), next - 1]) {
      if (kind > kept[kept.length - 1]) kept.push(kind);
    }
  }
  return kept.map((i) => points[i]);
}

function valueAt(points, time) {
  const point = points[d3.bisector((candidate) => candidate[0]).right(points, time) - 1];
  return point ? point[1] : null;
}
