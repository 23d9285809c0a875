// Where a task was posted from: file, function and line, kept for logs and debugging.
//
//   runner->PostTask(FROM_HERE, tarn_base::BindOnce(&Foo::Bar, tarn_base::Unretained(this)));
#ifndef SDK_BASE_LOCATION_H_
#define SDK_BASE_LOCATION_H_

namespace tarn_base {

class Location {
 public:
  constexpr Location() = default;
  constexpr Location(const char* file, const char* function, int line)
      : file_(file), function_(function), line_(line) {}

  const char* file() const { return file_; }
  const char* function() const { return function_; }
  int line() const { return line_; }

 private:
  const char* file_ = "";
  const char* function_ = "";
  int line_ = 0;
};

}  // namespace tarn_base

#define FROM_HERE ::tarn_base::Location(__FILE__, __func__, __LINE__)

#endif  // SDK_BASE_LOCATION_H_
