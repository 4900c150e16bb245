// The binding's C++ side (`clipdec._clipdec`): a thin layer over the public
// interface that takes and gives plain values (times as numerator and
// denominator, formats as names); the Pythonic surface is clipdec/__init__.py.
//
// The GIL is released around every call that decodes, probes or waits, so
// Python threads decode in parallel. Objects that may be destroyed on a
// library thread (callbacks held by queued requests) take the GIL for it.
#include <pybind11/functional.h>
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <clipdec/clipdec.h>

extern "C" {
#include <libavutil/pixfmt.h>
}

#include <atomic>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace py = pybind11;

namespace {

using ff::Rational;

// ---------------------------------------------------------------- formats

ff::PixelFormat pixel_format(const std::string& name) {
    if (name == "rgba") return ff::PF_RGBA;
    if (name == "yuv420p") return ff::PF_YUV420P;
    if (name == "nv12") return ff::PF_NV12;
    throw py::value_error("format must be 'rgba', 'yuv420p' or 'nv12', not '" + name + "'");
}

ff::SampleFormat sample_format(const std::string& name) {
    if (name == "f32") return ff::SF_FLT;
    if (name == "s16") return ff::SF_S16;
    if (name == "s32") return ff::SF_S32;
    if (name == "u8") return ff::SF_U8;
    throw py::value_error("format must be 'f32', 's16', 's32' or 'u8', not '" + name + "'");
}

py::dtype dtype_of(ff::SampleFormat f) {
    switch (f) {
        case ff::SF_FLT: return py::dtype::of<float>();
        case ff::SF_S32: return py::dtype::of<int32_t>();
        case ff::SF_U8: return py::dtype::of<uint8_t>();
        default: return py::dtype::of<int16_t>();
    }
}

// ---------------------------------------------------------------- pictures and samples as arrays

// Owns a library record for as long as an array views its memory.
template <typename Record>
py::capsule keep_alive(std::shared_ptr<Record> record) {
    auto* held = new std::shared_ptr<Record>(std::move(record));
    return py::capsule(held, [](void* p) { delete static_cast<std::shared_ptr<Record>*>(p); });
}

py::array plane(const std::shared_ptr<ff::VFrameCtx>& p, int index, int height, int width, int channels) {
    std::vector<py::ssize_t> shape{height, width}, strides{p->linesize[index], channels};
    if (channels > 1) {
        shape.push_back(channels);
        strides.push_back(1);
    }
    return py::array(py::dtype::of<uint8_t>(), shape, strides, p->data[index], keep_alive(p));
}

// RGBA: one H x W x 4 array; YUV 4:2:0: Y, U and V; NV12: Y and the
// interleaved UV plane (H/2 x W/2 x 2). Views of the pooled picture.
py::list picture_planes(const std::shared_ptr<ff::VFrameCtx>& p) {
    py::list planes;
    const int cw = (p->width + 1) / 2, ch = (p->height + 1) / 2;
    if (p->format == static_cast<int>(AV_PIX_FMT_RGBA)) {
        planes.append(plane(p, 0, p->height, p->width, 4));
    } else if (p->format == static_cast<int>(AV_PIX_FMT_NV12)) {
        planes.append(plane(p, 0, p->height, p->width, 1));
        planes.append(plane(p, 1, ch, cw, 2));
    } else {
        planes.append(plane(p, 0, p->height, p->width, 1));
        planes.append(plane(p, 1, ch, cw, 1));
        planes.append(plane(p, 2, ch, cw, 1));
    }
    return planes;
}

// An n x channels array viewing the record (interleaved as the library
// delivers it).
py::array samples_array(const std::shared_ptr<ff::AFrameCtx>& a, ff::SampleFormat format) {
    const py::dtype dt = dtype_of(format);
    const py::ssize_t size = dt.itemsize();
    return py::array(dt, {static_cast<py::ssize_t>(a->nb_samples), static_cast<py::ssize_t>(a->channels)},
                     {size * a->channels, size}, a->data[0], keep_alive(a));
}

struct Picture {
    std::shared_ptr<ff::VFrameCtx> record;
    py::list planes() const { return picture_planes(record); }
    long long pts_us() const { return record->pts; }
};

// ---------------------------------------------------------------- cancel flags

struct CancelFlag {
    std::atomic<bool> raised{false};
};

// ---------------------------------------------------------------- decoders

// A Python callable that may be dropped on a library thread (a queued
// request discarded by a newer one): it is always released with the GIL.
using SharedCallback = std::shared_ptr<py::object>;

SharedCallback share_callback(py::object f) {
    return SharedCallback(new py::object(std::move(f)), [](py::object* p) {
        py::gil_scoped_acquire gil;
        delete p;
    });
}

// Calls the callback with the GIL; what it raises is reported, not fatal.
template <typename Arg>
void call_back(const SharedCallback& f, Arg&& arg) {
    py::gil_scoped_acquire gil;
    try {
        (*f)(std::forward<Arg>(arg));
    } catch (py::error_already_set& e) {
        e.discard_as_unraisable("clipdec callback");
    }
}

class Decoder {
public:
    bool open(const ff::StreamCtx* stream) {
        py::gil_scoped_release nogil;
        return dec_.open(stream);
    }
    void close() {
        py::gil_scoped_release nogil;
        dec_.close();
    }
    bool is_open() const {
        py::gil_scoped_release nogil;  // waits for a request of another thread to end
        return dec_.isOpened();
    }
    const ff::StreamCtx* stream() const { return dec_.streamContex(); }
    double speed() const { return dec_.speed(); }
    bool set_speed(double s) {
        py::gil_scoped_release nogil;
        return dec_.setSpeed(s);
    }
    bool set_filters(const std::string& text) {
        py::gil_scoped_release nogil;
        return dec_.setFilters(text.c_str());
    }
    void set_reverse(bool on) { dec_.setRevert(on); }

    py::object picture(long long num, long long den, const std::string& format, int divider) {
        const ff::RequireVideoFrame req{Rational(num, den), pixel_format(format), divider, nullptr};
        std::shared_ptr<ff::VFrameCtx> p;
        {
            py::gil_scoped_release nogil;
            p = dec_.getVideoFrame(req);
        }
        if (!p) return py::none();
        return py::cast(Picture{std::move(p)});
    }

    void picture_async(long long num, long long den, const std::string& format, int divider, py::object callback) {
        const ff::RequireVideoFrame req{Rational(num, den), pixel_format(format), divider, nullptr};
        SharedCallback f = share_callback(std::move(callback));
        py::gil_scoped_release nogil;
        dec_.getVideoFrameAsync(req, [f](std::shared_ptr<ff::VFrameCtx> p) { call_back(f, Picture{std::move(p)}); });
    }

    py::object samples(long long bn, long long bd, long long en, long long ed, int rate, int channels,
                       const std::string& format) {
        ff::RequireAudioFrame req;
        req.range = ff::Range(Rational(bn, bd), Rational(en, ed));
        req.format = sample_format(format);
        req.sample_rate = rate;
        req.channels = channels;
        std::shared_ptr<ff::AFrameCtx> a;
        {
            py::gil_scoped_release nogil;
            a = dec_.getAudioFrame(req);
        }
        if (!a) return py::none();
        return samples_array(a, req.format);
    }

private:
    ff::FFDecoder2 dec_;
};

// Destroys a decoder without the GIL: closing joins its worker thread, whose
// callback may be waiting for the GIL.
struct DecoderDeleter {
    void operator()(Decoder* d) const {
        py::gil_scoped_release nogil;
        delete d;
    }
};

// ---------------------------------------------------------------- tools

py::object thumbnail(const std::string& path, py::object time, double ratio, int width, int height,
                     const std::string& format, bool upright) {
    ff::RequireMvImage req;
    if (!time.is_none()) {
        const auto pair = time.cast<std::pair<long long, long long>>();
        req.time = Rational(pair.first, pair.second);
    }
    req.ratio = ratio;
    req.width = width;
    req.height = height;
    req.format = pixel_format(format);
    req.upright = upright;
    std::shared_ptr<ff::VFrameCtx> p;
    {
        py::gil_scoped_release nogil;
        p = ff::getMovieImage(path.c_str(), req, nullptr);
    }
    if (!p) return py::none();
    return py::cast(Picture{std::move(p)});
}

py::object overview(const std::string& path, int stream, long long num, long long den, CancelFlag* cancel,
                    py::object progress) {
    std::function<void(double)> report;
    if (!progress.is_none()) {
        SharedCallback f = share_callback(std::move(progress));
        report = [f](double fraction) { call_back(f, fraction); };
    }
    std::shared_ptr<const ff::AudioOverview> o;
    {
        py::gil_scoped_release nogil;
        o = ff::getAudioOverview(path.c_str(), stream, Rational(num, den), cancel ? &cancel->raised : nullptr, report);
    }
    if (!o) return py::none();
    auto table = [&](const std::vector<float>& values) {
        py::array_t<float> a({o->buckets, o->channels});
        std::memcpy(a.mutable_data(), values.data(), values.size() * sizeof(float));
        return a;
    };
    py::dict d;
    d["sample_rate"] = o->sampleRate;
    d["channels"] = o->channels;
    d["bucket"] = std::make_pair(o->bucket.num, o->bucket.den);
    d["samples"] = o->samples;
    d["min"] = table(o->min);
    d["max"] = table(o->max);
    d["rms"] = table(o->rms);
    return std::move(d);
}

py::list filmstrip(const std::string& path, int count, int width, int height, const std::string& format, bool fast,
                   CancelFlag* cancel) {
    ff::RequireFilmstrip req;
    req.count = count;
    req.width = width;
    req.height = height;
    req.format = pixel_format(format);
    req.fast = fast;
    req.cancel = cancel ? &cancel->raised : nullptr;
    std::vector<ff::FilmstripPicture> strip;
    {
        py::gil_scoped_release nogil;
        strip = ff::getFilmstrip(path.c_str(), req);
    }
    py::list out;
    for (ff::FilmstripPicture& p : strip)
        out.append(py::make_tuple(Picture{std::move(p.picture)}, std::make_pair(p.asked.num, p.asked.den),
                                  std::make_pair(p.shown.num, p.shown.den)));
    return out;
}

// Interleaved samples of an array as a library record (pooled memory).
std::shared_ptr<ff::AFrameCtx> record_of(py::array samples, int rate, ff::SampleFormat format) {
    if (samples.ndim() != 2) throw py::value_error("samples must be an (n, channels) array");
    py::array contiguous = py::array::ensure(samples, py::array::c_style);
    const auto channels = static_cast<int>(contiguous.shape(1));
    ff::RequireAudioFrame req;
    req.format = format;
    req.sample_rate = rate;
    req.channels = channels;
    const int n = static_cast<int>(contiguous.shape(0));
    const size_t bytes = static_cast<size_t>(contiguous.nbytes());
    void* block = ff::mem_malloc(static_cast<int>(bytes > 0 ? bytes : 1), 16);
    if (!block) throw std::bad_alloc();
    std::memcpy(block, contiguous.data(), bytes);
    auto record = std::make_shared<ff::AFrameCtx>();
    record->buffer = block;
    record->data[0] = static_cast<uint8_t*>(block);
    record->linesize[0] = static_cast<int>(bytes);
    record->size = static_cast<int>(bytes);
    record->nb_samples = n;
    record->channels = channels;
    record->sample_rate = rate;
    record->format = ff::samplefmt_to_avsamplefmt(format);
    return record;
}

class Mixer {
public:
    Mixer(int rate, int channels, const std::string& format)
        : format_(sample_format(format)), rate_(rate), mixer_(rate, channels, format_) {}
    void begin(long long bn, long long bd, long long en, long long ed) {
        mixer_.begin(ff::Range(Rational(bn, bd), Rational(en, ed)));
    }
    bool write(py::object key, py::array samples, int volume) {
        std::shared_ptr<ff::PcmWriterBase> writer = mixer_.getBuffer(key.ptr());
        // The key's address names the source: the key is kept alive with the
        // mixer, once however many spans it writes.
        keys_[py::int_(reinterpret_cast<uintptr_t>(key.ptr()))] = key;
        return writer && writer->write(record_of(samples, rate_, format_), volume);
    }
    py::object end(int channels) {
        std::shared_ptr<ff::PcmBuffer> out = mixer_.end();
        if (!out) return py::none();
        const py::dtype dt = dtype_of(format_);
        const py::ssize_t n = out->size / (dt.itemsize() * channels);
        return py::array(dt, {n, static_cast<py::ssize_t>(channels)}, {dt.itemsize() * channels, dt.itemsize()},
                         out->data, keep_alive(out));
    }

private:
    ff::SampleFormat format_;
    int rate_;
    ff::AudioMixer mixer_;
    py::dict keys_;  // address -> key
};

int peak(py::array samples, const std::string& format, int scale) {
    py::array contiguous = py::array::ensure(samples, py::array::c_style);
    const ff::SDL_AudioFormat f = ff::get_sdl_audio_fmt(sample_format(format));
    return Audio_Volume_Peak(f, static_cast<const unsigned char*>(contiguous.data()),
                             static_cast<unsigned>(contiguous.nbytes()), scale);
}

}  // namespace

PYBIND11_MODULE(_clipdec, m) {
    m.doc() = "The C++ side of clipdec; use the clipdec package.";

    py::class_<ff::StreamCtx>(m, "Stream")
        .def_readonly("index", &ff::StreamCtx::index)
        .def_property_readonly("type", [](const ff::StreamCtx& s) { return static_cast<int>(s.type); })
        .def_property_readonly("time_base", [](const ff::StreamCtx& s) { return std::make_pair(s.time_base.num, s.time_base.den); })
        .def_readonly("start_time", &ff::StreamCtx::start_time)
        .def_readonly("duration", &ff::StreamCtx::duration)
        .def_readonly("width", &ff::StreamCtx::width)
        .def_readonly("height", &ff::StreamCtx::height)
        .def_readonly("pix_fmt", &ff::StreamCtx::pix_fmt)
        .def_property_readonly("frame_rate", [](const ff::StreamCtx& s) { return std::make_pair(s.frame_rate.num, s.frame_rate.den); })
        .def_readonly("rotation", &ff::StreamCtx::rotation)
        .def_readonly("sample_rate", &ff::StreamCtx::sample_rate)
        .def_readonly("channels", &ff::StreamCtx::channels)
        .def_readonly("channel_layout", &ff::StreamCtx::channel_layout)
        .def_readonly("still_image", &ff::StreamCtx::still_image)
        .def_readonly("color_space", &ff::StreamCtx::color_space)
        .def_readonly("color_range", &ff::StreamCtx::color_range)
        .def_readonly("color_primaries", &ff::StreamCtx::color_primaries)
        .def_readonly("color_trc", &ff::StreamCtx::color_trc);

    py::class_<ff::MovieCtx>(m, "Movie")
        .def_property_readonly("path", [](const ff::MovieCtx& mv) { return std::string(mv.path ? mv.path : ""); })
        .def_readonly("duration_us", &ff::MovieCtx::duration)
        .def_readonly("start_us", &ff::MovieCtx::start_time)
        .def_readonly("bit_rate", &ff::MovieCtx::bit_rate)
        .def_property_readonly("streams", [](const ff::MovieCtx& mv) {
            std::vector<const ff::StreamCtx*> streams(mv.streams, mv.streams + mv.nb_streams);
            return streams;
        }, py::return_value_policy::reference);

    // Probe records live as long as the process: handed out by reference.
    m.def("probe", [](const std::string& path) {
        py::gil_scoped_release nogil;
        return ff::FFDecoder::probe(path.c_str(), nullptr);
    }, py::return_value_policy::reference);

    py::class_<Picture>(m, "Picture")
        .def_property_readonly("planes", &Picture::planes)
        .def_property_readonly("pts_us", &Picture::pts_us)
        .def_property_readonly("width", [](const Picture& p) { return p.record->width; })
        .def_property_readonly("height", [](const Picture& p) { return p.record->height; });

    py::class_<CancelFlag>(m, "CancelFlag")
        .def(py::init<>())
        .def("set", [](CancelFlag& c) { c.raised = true; })
        .def("clear", [](CancelFlag& c) { c.raised = false; })
        .def_property_readonly("is_set", [](const CancelFlag& c) { return c.raised.load(); });

    py::class_<Decoder, std::unique_ptr<Decoder, DecoderDeleter>>(m, "Decoder")
        .def(py::init<>())
        .def("open", &Decoder::open, py::keep_alive<1, 2>())
        .def("close", &Decoder::close)
        .def_property_readonly("is_open", &Decoder::is_open)
        .def_property_readonly("stream", &Decoder::stream, py::return_value_policy::reference)
        .def_property_readonly("speed", &Decoder::speed)
        .def("set_speed", &Decoder::set_speed)
        .def("set_filters", &Decoder::set_filters)
        .def("set_reverse", &Decoder::set_reverse)
        .def("picture", &Decoder::picture)
        .def("picture_async", &Decoder::picture_async)
        .def("samples", &Decoder::samples);

    m.def("thumbnail", &thumbnail);
    m.def("overview", &overview, py::arg("path"), py::arg("stream"), py::arg("num"), py::arg("den"),
          py::arg("cancel").none(true), py::arg("progress").none(true));
    m.def("filmstrip", &filmstrip, py::arg("path"), py::arg("count"), py::arg("width"), py::arg("height"),
          py::arg("format"), py::arg("fast"), py::arg("cancel").none(true));

    py::class_<Mixer>(m, "Mixer")
        .def(py::init<int, int, const std::string&>())
        .def("begin", &Mixer::begin)
        .def("write", &Mixer::write)
        .def("end", &Mixer::end);
    m.def("peak", &peak);
    m.def("mem_collection", [](unsigned ms) {
        py::gil_scoped_release nogil;
        ff::mem_collection(ms);
    });
    m.def("pool_stats", [] {
        const bg::mempool::PoolStats s = bg::mempool::stats();
        return py::make_tuple(s.handed_out_count, s.handed_out_bytes, s.free_count, s.free_bytes);
    });
}
