// The tables, for those who cannot see the plots; and the rows as files.

const kRowsAtOnce = 200;

class TableView {
  constructor(parent, session, name) {
    this.session = session;
    this.name = name;
    const { title } = session.tables.get(name);
    this.section = parent.append("section").attr("class", `table table-${name}`);
    this.heading = this.section.append("h3");
    const region = this.section.append("div").attr("class", "scroll").attr("role", "region").attr("tabindex", 0).attr("aria-label", title);
    const table = region.append("table");
    table.append("caption").text(title);
    this.heads = table.append("thead").append("tr").selectAll("th").data(session.tables.get(name).titles).join("th").attr("scope", "col").text((text) => text);
    this.body = table.append("tbody");
    this.more = this.section.append("button").attr("type", "button").on("click", () => { this.limit += kRowsAtOnce * 5; this.draw(); });
    this.limit = kRowsAtOnce;
    this.drawn = 0;
    this.draw();
  }

  draw() {
    const { rows, columns, title } = this.session.tables.get(this.name);
    this.section.attr("hidden", rows.length ? null : "");
    this.heads.classed("number", (head, i) => rows.slice(0, 50).some((row) => typeof row[columns[i]] === "number"));
    this.heading.text(`${title} (${rows.length.toLocaleString("en")})`);
    for (; this.drawn < Math.min(rows.length, this.limit); ++this.drawn) {
      const line = this.body.append("tr");
      columns.forEach((column, i) => {
        const value = rows[this.drawn][column];
        line.append(i === 0 ? "th" : "td").attr("scope", i === 0 ? "row" : null)
          .classed("number", typeof value === "number").classed("short", String(value).length < 30).text(asCell(column, value));
      });
    }
    const left = rows.length - this.drawn;
    this.more.attr("hidden", left > 0 ? null : "").text(`Show ${Math.min(left, kRowsAtOnce * 5).toLocaleString("en")} of ${left.toLocaleString("en")} more rows`);
  }
}

// RFC 4180. What a spreadsheet would take for a formula gets an apostrophe.
function csvField(value) {
  if (!known(value)) return "";
  const text = typeof value === "string" && /^[=+\-@\t\r]/.test(value) ? `'${value}` : String(value);
  return /[",\r\n]/.test(text) ? `"${text.replace(/"/g, '""')}"` : text;
}

function toCsv(sessions) {
  const columns = [...new Set(sessions.flatMap((session) => [...session.tables.values()].flatMap((table) => table.columns)))];
  const lines = [["session", "table", ...columns].join(",")];
  sessions.forEach((session, i) => {
    for (const table of session.tables.values()) {
      for (const row of table.rows) lines.push([i + 1, table.name, ...columns.map((column) => csvField(row[column]))].join(","));
    }
  });
  return `${lines.join("\r\n")}\r\n`;
}

function toJson(sessions) {
  return JSON.stringify({ sessions: sessions.map((session) => ({
    ...session.info,
    tables: [...session.tables.values()].map((table) => ({ ...table, rows: table.rows.map((row) => table.columns.map((column) => row[column])) })),
  })) });
}

function download(name, type, text) {
  const url = URL.createObjectURL(new Blob([text], { type }));
  d3.select("body").append("a").attr("href", url).attr("download", name).attr("hidden", "").each(function click() { this.click(); }).remove();
  setTimeout(() => URL.revokeObjectURL(url), 10000);
}
