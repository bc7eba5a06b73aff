// Runs inside the report's page, as its last script; what it saw becomes text of the page.
// Before the page's own scripts, testErrors was made to collect errors and violations of its policy.
{
  const all = (selector) => [...document.querySelectorAll(selector)];
  const drawn = () => page.draw(); // does not wait for a frame, which without a window may never come
  const ticks = (plot) => all(`.session:first-child ${plot} .time .tick`).map((tick) => tick.textContent).join(" ");
  const fire = (target, type, Kind, options) => {
    const box = target.getBoundingClientRect();
    target.dispatchEvent(new Kind(type, { bubbles: true, cancelable: true, view: window, clientX: box.left + box.width / 2,
      clientY: box.top + box.height / 2, ...options }));
  };
  const seen = {};
  try {
    drawn();
    seen.switches = all(".plot-level .switch").length;
    seen.stalls = all(".plot-buffer .band.stall").length;
    seen.unfinished = all(".plot-requests .unfinished").length;
    seen.headline = all(".session:first-child .figure .value").map((figure) => figure.textContent.replace(/\s/g, " "));
    seen.sessions = all(".session").length;
    seen.plots = all(".session:first-child .plot").map((plot) => plot.className.replace("plot plot-", ""));
    seen.wide = document.documentElement.scrollWidth > window.innerWidth;
    seen.back = getComputedStyle(document.body).backgroundColor;

    const mark = document.querySelector(".plot-level .switch.down").getBoundingClientRect();
    fire(document.querySelector(".plot-level .hit"), "mousemove", MouseEvent, { clientX: mark.left + mark.width / 2 });
    seen.tooltip = document.querySelector(".tooltip.shown").textContent;

    const whole = ticks(".plot-level");
    fire(document.querySelector(".plot-buffer .hit"), "wheel", WheelEvent, { deltaY: -600 });
    drawn();
    const zoomed = ticks(".plot-level");
    seen.zoomed = zoomed !== whole;
    seen.shared = all(".plot").every((plot) => [...plot.querySelectorAll(".time .tick")].map((tick) => tick.textContent).join(" ") === zoomed);
    fire(document.querySelector(".plots"), "keydown", KeyboardEvent, { key: "ArrowRight" });
    drawn();
    seen.panned = ticks(".plot-level") !== zoomed;
    document.querySelector("[aria-label='Show all of the time']").click();
    drawn();
    seen.reset = ticks(".plot-level") === whole;

    document.querySelector("[aria-label^='Show tables']").click();
    drawn();
    seen.tableRows = all(".session:first-child .table-switches tbody tr").length;
    seen.hiddenPlots = document.querySelector(".plots").hidden;
    seen.subtitle = document.querySelector(".table-subtitles tbody td:last-child").textContent;
    const [csv] = toCsv([page.sessions[0]]).split("\r\n").filter((line) => line.startsWith("1,subtitles"));
    seen.csv = csv;

    const strip = document.querySelector(".strip .overlay");
    const { left, width, top } = strip.getBoundingClientRect();
    fire(strip, "mousedown", MouseEvent, { clientX: left + width / 4, clientY: top + 5 });
    fire(strip, "mousemove", MouseEvent, { clientX: left + width / 2, clientY: top + 5 });
    fire(strip, "mouseup", MouseEvent, { clientX: left + width / 2, clientY: top + 5 });
    drawn();
    seen.chosen = [page.window.from, page.window.to].map((time) => Math.round((4 * time) / page.window.duration));

    seen.images = all("img").length;
  } catch (error) {
    testErrors.push(String(error && error.stack));
  }
  seen.errors = testErrors;
  const outcome = document.createElement("pre");
  outcome.id = "outcome";
  outcome.textContent = `OUTCOME${JSON.stringify(seen)}EMOCTUO`;
  document.body.append(outcome);
}
